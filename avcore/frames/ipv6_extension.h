// The headers between IPv6's and a payload's (RFC 8200, 4).
#pragma once

#include "packet/decode/cursor.h"

#include <cstddef>
#include <cstdint>
#include <netinet/in.h>

namespace avcore {

inline bool is_extension(uint8_t protocol) {
    return protocol == IPPROTO_HOPOPTS || protocol == IPPROTO_ROUTING ||
           protocol == IPPROTO_FRAGMENT || protocol == IPPROTO_AH || protocol == IPPROTO_DSTOPTS;
}

// As the header says, never 0.
inline size_t extension_size(uint8_t protocol, byte_view header) {
    constexpr size_t fragment_header_size = 8;
    if (protocol == IPPROTO_FRAGMENT)
        return fragment_header_size;
    if (protocol == IPPROTO_AH)
        return (header.u8(1) + size_t{2}) * 4;
    return (header.u8(1) + size_t{1}) * 8;
}

} // namespace avcore
