// A frame as a source hands it on, before anyone has looked into it.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

struct gate_copy;

namespace avcore {

struct captured_frame {
    std::span<const uint8_t> bytes; // valid until the next read
    int64_t time_us = 0;
    std::string_view captured_on;       // of a copy; empty: its interface is gone
    const gate_copy *copy = nullptr;    // of a gate's: what it says of the frame
    std::span<const uint8_t> held = {}; // of a packet that was taken: all of it
};

} // namespace avcore
