// The command line: "-i IFACE" the capture interface, "-c PATH" the configuration path, "-d" debug,
// "-D" daemon.
#pragma once

inline constexpr int OPTIONS_ERR_UNKNOWN = -5;   // start-up goes on
inline constexpr int OPTIONS_ERR_TOO_LONG = -10; // an argument that doesn't fit ends the start

// Prints the help or the version when `--help` or `--version` is the only argument. Returns whether
// it did; the process has nothing else to do then.
bool answer_about_program(int argc, char *argv[]);

// Reads the options into the daemon settings. Every unknown option is reported on standard error
// and passed over. Returns 0, -5 when there was one, or -10 after a message on standard error when
// a name or a path doesn't fit its field.
int jorn_parse_options(int argc, char *argv[]);
