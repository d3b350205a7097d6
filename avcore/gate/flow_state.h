// A flow as the gate knows it.
#pragma once

#include "avcore/records/gate_records.h"

#include <array>
#include <cstdint>
#include <functional>

namespace avcore {

struct gate_flow_state {
    gate_counter counts = {}; // since it began; they don't fall
    // What flows that had these addresses and ports earlier had, together: what the last one of
    // them came to is by how much that has grown since it began.
    gate_counter before = {};
    // CLOCK_MONOTONIC, first packet: tells it from all others of these addresses and ports in this
    // boot. The wall's clock may be set meanwhile: then both of its times change.
    uint64_t begun_ns = 0;
    int64_t begun_us = 0; // of the wall's clock
    int64_t last_us = 0;  // last packet; a tick of the kernel's too early at most
    uint8_t ended = 0;    // bits of gate_end
    // Of the last packet that came from the client; until one has, of the first that went to it.
    std::array<uint8_t, 6> mac = {};
    uint32_t if_index = 0; // 0: neither is known
};

// How far a walk over the gate's flows has come.
enum class flow_walk : uint8_t {
    goes_on,
    ended,
    broken, // the rest can't be read
};

using flow_visitor = std::function<void(const gate_flow &, const gate_flow_state &)>;

} // namespace avcore
