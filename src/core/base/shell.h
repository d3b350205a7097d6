// The shell commands that the daemon runs: directories, spoilt files, the rule agent.
//
// Nothing that came from the network is ever put into one. A name found in the file system is
// checked first, for the shell would read some characters of it as its own.
#pragma once

#include "core/base/log.h"

#include <string_view>

// Whether a text holds nothing but letters, digits and `._+~-`: none of what separates words, ends
// a command or starts another one.
bool is_plain_to_shell(std::string_view text);

// Runs the command and waits for its end. Returns whether it ran and succeeded.
bool run_shell(const char *command);

// "rm -rf PATH": the way in which a file that can't be opened is got rid of. A failure is reported
// in the log.
void remove_by_shell(const char *path, log_origin from);
