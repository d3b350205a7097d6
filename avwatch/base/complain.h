// What goes wrong, on standard error.
#pragma once

#include <string>

namespace avwatch {

// Prints one line of bounded length that steers no terminal: it may quote names, files and what
// the watch socket said.
void complain(std::string line);

} // namespace avwatch
