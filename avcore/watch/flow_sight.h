// What is seen of a flow at a moment by whoever counts it, the gate or the table of flows, and how
// it is reckoned with.
#pragma once

#include "avcore/flows/flow_life.h"
#include "avcore/gate/gate.h"
#include "avcore/records/gate_records.h"

#include <array>
#include <cstdint>

namespace avcore {

struct flow_sight {
    uint64_t begun = 0; // tells it from others of the same sides
    int64_t begun_us = 0;
    int64_t last_us = 0;
    gate_counter counted = {}; // of all flows of these sides
    gate_counter before = {};  // of those before this one
    uint8_t ends = 0;          // gate_end
};

flow_sight sight_of(const flow_life &life);
flow_sight sight_of(const gate_flow_state &state);

gate_counter operator-(const gate_counter &all, const gate_counter &some);
gate_counter operator+(const gate_counter &some, const gate_counter &more);
bool operator==(const gate_counter &a, const gate_counter &b);
// Whether none of its members is less.
bool holds(const gate_counter &all, const gate_counter &some);

} // namespace avcore
