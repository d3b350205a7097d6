// Writing into packets, as a byte_view reads them.
#pragma once

#include <cstddef>
#include <cstdint>

namespace avcore {

// The value's lower 16 bits.
inline void put_u16(uint8_t *to, size_t value) {
    to[0] = static_cast<uint8_t>(value >> 8);
    to[1] = static_cast<uint8_t>(value);
}

} // namespace avcore
