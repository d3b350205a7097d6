// The command line: its subcommands, what they send, and what the user reads of it.
//
// Answers go to standard output as they are; everything that went wrong is one line on standard
// error each, beginning "jornctl: ".
#pragma once

namespace jornctl {

// Returns the exit status, one of failure.h.
int run(int argc, char **argv);

} // namespace jornctl
