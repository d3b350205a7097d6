// What every reader and writer of frames here knows of IP, TCP and UDP.
#pragma once

#include <cstddef>
#include <cstdint>

namespace avcore {

constexpr size_t IPV4_HEADER_SIZE = 20; // without options
constexpr size_t IPV6_HEADER_SIZE = 40;
constexpr size_t TCP_HEADER_SIZE = 20; // without options
constexpr size_t UDP_HEADER_SIZE = 8;

// IPv4's flags and offset.
constexpr uint16_t FRAGMENT_OFFSET_MASK = 0x1FFF;
constexpr uint16_t MORE_FRAGMENTS = 0x2000;
constexpr uint16_t FRAGMENT_MASK = MORE_FRAGMENTS | FRAGMENT_OFFSET_MASK;

} // namespace avcore
