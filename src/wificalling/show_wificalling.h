// The listing of the interface bindings with their carriers.
#pragma once

#include "wificalling/records/wificalling.h"

#include <cstddef>

// Command 37: writes the listing to a command connection; nothing where there is no binding.
// Returns 0.
int jorn_show_wificalling_intf(int fd);

// One binding's text, in a buffer of `size` bytes. Returns 0.
int jorn_format_wificalling_intf(char *text, size_t size, const wificalling_intf *binding);
