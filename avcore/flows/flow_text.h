// How a flow is called towards a reader, in the report and in the log.
#pragma once

#include "avcore/flows/flow_table.h"

#include <string>

namespace avcore {

// An IP address, else a MAC address.
std::string address_text(const flow_row &row, const endpoint &side);
std::string endpoint_text(const flow_row &row, const endpoint &side); // with its port
std::string protocol_text(const flow_row &row);

// Whether it is called after the host that its client showed: the daemon doesn't learn a flow's own
// name from each frame, and from none where URLs are filtered. A verdict then has another's, the
// host as the client wrote it, or no name.
bool shows_own_name(const flow_row &row);
const std::string &application_of(const flow_row &row);
std::string verdict_word(uint32_t verdict); // an av_verdict_code; 0: there is none

// "CLIENT (MAC) to SERVER (PROTOCOL)".
std::string flow_text(const flow_row &row);

} // namespace avcore
