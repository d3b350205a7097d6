// The flows that the same two sides have, one after the other: a five-tuple comes again. What is
// known of the present one, by the frames that were seen; behind a gate the gate knows better.
#pragma once

#include "avcore/frames/frame.h"
#include "avcore/records/gate_records.h"

#include <cstddef>
#include <cstdint>

namespace avcore {

// Whether a flow of TCP is over, with these bits of gate_end: it was reset, or both sides are done.
constexpr bool is_closed(uint8_t ends) {
    constexpr uint8_t both = GATE_FIN_UP | GATE_FIN_DOWN;
    return (ends & GATE_RST) != 0 || (ends & both) == both;
}

inline constexpr int64_t FLOW_IDLE_US = 300'000'000; // then the next packet begins another one

struct flow_life {
    uint64_t begins = 0;  // how many flows of these sides there were, with the present one
    int64_t begun_us = 0; // of its first frame's capture, like
    int64_t last_us = 0;
    gate_counter counted = {}; // of all of them
    gate_counter before = {};  // of those before the present one
    uint8_t ends = 0;          // gate_end
};

// To be told of each frame that is sound, of `size` bytes.
void note_life(flow_life &life, const frame_facts &frame, bool from_client, size_t size,
               int64_t time_us);

} // namespace avcore
