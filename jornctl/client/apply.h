// From a document to the commands that make the daemon's tables what it says.
#pragma once

#include "jornctl/client/client.h"
#include "jornctl/documents/documents.h"

#include <string>
#include <vector>

namespace jornctl {

// In the order in which they have to be sent. Sent twice they leave what they leave when sent once.
// A document that empties a table ends with CMD_WRITE_CFG_REQ where no other command has the
// daemon's file follow; it is the only one of them with an answer. Throws refused for a document
// that has mistakes.
std::vector<command> commands_of(const document &wanted);

// Payloads that aren't one record's bytes: a carrier without the NULs that fill it up to its
// alignment, applications behind their count.
std::string carrier_payload(const wificalling_policy_wire &carrier);
std::string applications_payload(const std::vector<userdef_app> &applications);

} // namespace jornctl
