// A TLS ClientHello (RFC 8446, 4.1.2), whatever carries it: the handshake message alone, without
// the records of TLS or the frames of QUIC.
#pragma once

#include "packet/decode/cursor.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace avcore {

// Of a message with its header. Clients' have two KiB with the largest keys that are in use.
inline constexpr size_t CLIENT_HELLO_MAX = 16'384;

struct client_hello {
    enum class state : uint8_t {
        partial, // as far as it goes; more is to come
        whole,
        malformed, // it contradicts itself, is too long, or is another message
    };
    state is = state::partial;
    // Of the extension server_name (RFC 6066), in lower case. Empty: it has none, or none that can
    // be a host's.
    std::string server_name;
};

// Reads a message that begins with these bytes; what follows it is left alone.
client_hello read_client_hello(byte_view message);

} // namespace avcore
