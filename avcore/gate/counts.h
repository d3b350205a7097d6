// What the gate has counted, and what its verdicts are.
#pragma once

#include "avcore/records/gate_records.h"

#include <array>
#include <cstdint>

namespace avcore {

using gate_counts = std::array<uint64_t, GATE_COUNTS>; // by gate_count

gate_counts read_counts(int processors_fd); // of all processors together; all 0 on an error

// What is counted by a walk over whole maps: tens of milliseconds where they are full.
struct gate_census {
    uint64_t verdicts[3] = {};    // by gate_action; first those that aren't final yet
    uint64_t forgotten_flows = 0; // that the map has dropped for others so far, whatever they had
};
// `made`: flows so far.
gate_census take_census(int verdicts_fd, int flows_fd, uint64_t made);

} // namespace avcore
