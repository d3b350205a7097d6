// What the gate knows of flows: in a map, and at hand of the processors.
#pragma once

#include "avcore/gate/flow_state.h"
#include "avcore/gate/mapping.h"
#include "avcore/records/gate_records.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace avcore {

class flow_records {
public:
    flow_records(int flows_fd, int recent_fd); // of maps that stay open; throws std::runtime_error

    // As the gate's functions.
    gate_counter counter_of(const gate_flow &flow) const;
    std::optional<gate_flow_state> find(const gate_flow &flow) const;
    flow_walk walk(uint32_t &cursor, size_t max, const flow_visitor &visit) const;

private:
    struct at_hand;
    at_hand look(const gate_flow &flow) const;
    void look_who_takes() const;
    bool read(const gate_flow &flow, gate_flow_record &record) const;
    gate_flow_state state_of(const gate_flow_record &record) const;
    void look_at_clocks() const;

    int flows_fd_;
    size_t processors_;
    mapping<gate_recent> recent_;
    mutable int64_t ahead_us_ = 0; // the wall's clock, of the monotonic one
    // Of a slice of a walk, which comes hundreds of times.
    mutable std::vector<gate_flow> walked_;
    mutable std::vector<gate_flow_record> records_;
    mutable std::vector<uint32_t> taken_; // by place, of all processors together
};

} // namespace avcore
