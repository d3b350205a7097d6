// Who is asked about: the two sides of a flow as they are written, and as the daemon is shown them.
#pragma once

#include "avcore/frames/frame.h"

#include <cstdint>
#include <string>

namespace avwatch {

// A MAC address or an IP address; what isn't given of the two is zero. Throws refused.
avcore::endpoint parse_client(const std::string &text);

// 192.0.2.1, 192.0.2.1:443, 2001:db8::1, [2001:db8::1]:443, :443; what isn't given is zero. Throws
// refused.
avcore::endpoint parse_server(const std::string &text);

// Of "tcp" or "udp", in any case. Throws refused.
uint8_t protocol_number(const std::string &word);

// What the daemon is shown of a side, in network byte order: an address of IPv4; for one of IPv6
// and for none, one that stands in for it, which nobody has.
enum class flow_side { client, server };
uint32_t shown_address(const avcore::ip_address &address, flow_side side);

} // namespace avwatch
