// The listings of the administrator's applications: commands 7 and 14.
#pragma once

#include "userapps/records/apps.h"

#include <cstddef>

// Command 7: answers with the user-defined applications. Returns 0.
int jorn_show_userdef_apps(int fd);

// Writes a definition's text into `text` of `size` bytes, which is emptied first. Returns 0.
int jorn_format_userdef_app(char *text, size_t size, const userdef_app *record);

// Command 14: answers with the user port-service list. Returns 0.
int jorn_show_port_apps(int fd);

// Writes an entry's text, in the same way. Returns 0.
int jorn_format_port_app(char *text, size_t size, const port_app *entry);
