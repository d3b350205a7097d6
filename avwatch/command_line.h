// The command line and its subcommands.
//
// What was asked for goes to standard output; everything that went wrong is one line on standard
// error each, beginning "avwatch: ".
#pragma once

namespace avwatch {

// Returns the exit status, one of failure.h.
int run(int argc, char **argv);

} // namespace avwatch
