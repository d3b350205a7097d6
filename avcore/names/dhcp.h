// Reads what a client says of itself in DHCP (RFC 2131, RFC 2132).
//
// The message comes from the network and is believed in nothing: lengths are checked, and a name
// that holds anything but printable characters is none.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>

namespace avcore {

inline constexpr uint16_t DHCP_SERVER_PORT = 67;
inline constexpr uint16_t DHCP_CLIENT_PORT = 68;

// The host name (option 12) in a client's request. Empty where there is none, the message is none
// or malformed, or speaks for another hardware address than the frame's source, `sender`. Options
// that lie in the fields of others (overload), or a name in several of them, are passed over.
std::string host_name_in_request(std::span<const uint8_t> message,
                                 const std::array<uint8_t, 6> &sender);

} // namespace avcore
