// The sum over 16-bit words that IP, TCP and UDP check (RFC 1071).
#pragma once

#include "packet/decode/cursor.h"

#include <cstddef>
#include <cstdint>

namespace avcore {

// Not yet folded; the last word is completed with zeros.
inline uint64_t internet_sum(byte_view bytes) {
    uint64_t sum = 0;
    for (size_t i = 0; i < bytes.size(); i += 2)
        sum += bytes.u16(i);
    return sum;
}

inline uint16_t folded(uint64_t sum) {
    while (sum >> 16 != 0)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(sum);
}

} // namespace avcore
