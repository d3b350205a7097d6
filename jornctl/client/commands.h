// The daemon's commands as jornctl shows them: names, and what payloads hold, by the rows that
// documents are read by.
#pragma once

#include "control/records/commands.h"
#include "jornctl/client/client.h"

#include <cstdint>
#include <string>
#include <vector>

namespace jornctl {

// The payload of commands that carry one number: an id or a switch.
struct word_payload {
    uint32_t word;
};

// Whether the commands leave a file of the daemon behind its tables that CMD_WRITE_CFG_REQ would
// bring up to date.
bool leave_file_behind(const std::vector<command> &commands);

// Number, name, length and the fields as words, in JSON. Throws refused for a number that jornctl
// doesn't know, and for a text where a record belongs.
std::string describe(const command &sent);

} // namespace jornctl
