// What the gate has counted, and what its verdicts are.
#pragma once

#include "avcore/records/gate_records.h"

#include <array>
#include <cstdint>

namespace avcore {

using gate_counts = std::array<uint64_t, GATE_COUNTS>; // by gate_count

gate_counts read_counts(int processors_fd); // of all processors together; all 0 on an error

// Of `made` flows those that aren't in the map any more.
uint64_t count_forgotten(int flows_fd, uint64_t made);

// Adds those of the map by gate_action; first those that aren't final yet.
void count_verdicts(int verdicts_fd, uint64_t (&verdicts)[3]);

} // namespace avcore
