// What the gate has counted of each flow: in a map, and at hand of the processors.
#pragma once

#include "avcore/gate/mapping.h"
#include "avcore/records/gate_records.h"

#include <cstddef>

namespace avcore {

class flow_counters {
public:
    flow_counters(int flows_fd, int recent_fd); // of maps that stay open; throws std::runtime_error

    // All 0 where the gate doesn't know the flow, or no longer.
    gate_counter of(const gate_flow &flow) const;

private:
    struct at_hand;
    at_hand look(const gate_flow &flow) const;

    int flows_fd_;
    size_t processors_;
    mapping<gate_recent> recent_;
};

} // namespace avcore
