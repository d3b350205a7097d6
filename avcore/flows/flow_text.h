// How a flow is called towards a reader, in the report and in the log.
#pragma once

#include "avcore/flows/flow_table.h"

#include <string>

namespace avcore {

// An IP address, else a MAC address.
std::string address_text(const flow_row &row, const endpoint &side);
std::string endpoint_text(const flow_row &row, const endpoint &side); // with its port
std::string protocol_text(const flow_row &row);

// "CLIENT (MAC) to SERVER (PROTOCOL)".
std::string flow_text(const flow_row &row);

} // namespace avcore
