// What goes wrong, on standard error.
#pragma once

#include <string>

namespace jornctl {

// Prints one line of bounded length that steers no terminal: it may quote documents, file names and
// the daemon.
void complain(std::string line);

} // namespace jornctl
