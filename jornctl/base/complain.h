// What goes wrong, on standard error.
#pragma once

#include <string>
#include <vector>

namespace jornctl {

// Prints one line of bounded length that steers no terminal: it may quote documents, file names and
// the daemon.
void complain(std::string line);
// A line each, behind the same beginning.
void complain_of(const std::vector<std::string> &all, const std::string &beginning);

// Under whose name that is; another program's than jornctl's.
void complain_as(std::string program);

} // namespace jornctl
