// The listings of user-defined applications and of the port-service file's entries.
#pragma once

#include "userapps/records/apps.h"

#include <cstddef>

// Command 7: writes the listing to a command connection. Returns 0.
int jorn_show_userdef_apps(int fd);

// Command 14: the same for the port-service list; the built-in table isn't listed.
int jorn_show_port_apps(int fd);

// One record's text, in a buffer of `size` bytes. Returns 0.
int jorn_format_userdef_app(char *text, size_t size, const userdef_app *record);
int jorn_format_port_app(char *text, size_t size, const port_app *entry);
