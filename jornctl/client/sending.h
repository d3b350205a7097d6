// Many commands, some of which belong together, sent to their end.
#pragma once

#include "jornctl/client/client.h"

#include <vector>

namespace jornctl {

// Commands that the daemon should take between two packets: before their last one something is
// missing that packets need.
using command_group = std::vector<command>;

size_t count_of(const std::vector<command_group> &groups); // of commands

// Of each group the first few go together where they may. Throws refused, and no_daemon, which says
// how far it came: some may have been taken.
void send_all(const std::vector<command_group> &groups, const client &daemon);

} // namespace jornctl
