// From a document to the commands that make the daemon's tables what it says.
#pragma once

#include "jornctl/client.h"
#include "jornctl/documents.h"

#include <vector>

namespace jornctl {

inline constexpr uint32_t WRITE_COMMAND = 17; // the only one of those below with an answer

// In the order in which they have to be sent. Sent twice they leave what they leave when sent once:
//
//   6       the applications, a whole table in one command
//   24, 22  the flushes of the tables that the document mentions
//   23      each policy, which also makes a bare entry for its UTP
//   20      each UTP entry; it replaces the bare one and finds its policy by uuid
//   17      the file, where policies went (24 leaves it alone) and neither 23 nor 20 wrote it
//
// A policy behind its UTP entry would wipe that entry's name and uuid, hence 23 before 20; the UTP
// flush behind the policies would take their entries, hence both flushes first.
std::vector<command> commands_of(const document &wanted);

} // namespace jornctl
