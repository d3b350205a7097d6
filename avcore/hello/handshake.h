// What a server says when it takes a handshake in which the client has shown a host name. The
// client may claim any name towards any address; the answer is what makes the name believable.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace avcore {

enum class handshake : uint8_t {
    none,
    http, // a request with the header Host
    tls,  // a ClientHello with server_name (RFC 6066)
    quic, // the same inside of CRYPTO frames (RFC 9001)
};

// Whether this IPv4 packet of the server holds the start of an HTTP response, a ServerHello, or a
// QUIC packet of a handshake that goes on.
bool takes_handshake(handshake shown, std::span<const uint8_t> ipv4);

// The host as a flow's name, without a port and a final dot, where it is the name of one: of
// letters, digits, hyphens, underscores and dots, not an address. In small letters, and of a longer
// one as much of its end as a verdict has room for, whether or not nDPI cut it. None for the outer
// name of an encrypted ClientHello, which hides the server's.
std::optional<std::string> flow_name_in(std::string_view shown);

} // namespace avcore
