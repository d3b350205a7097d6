#include "avcore/gate/flow_counters.h"

#include "avcore/gate/maps.h"

#include <bpf/bpf.h>
#include <cstdint>
#include <cstring>
#include <sys/mman.h>

namespace avcore {
namespace {

constexpr int TRIES = 4;

void add(gate_counter &sum, const gate_counter &more) {
    for (const gate_direction way : {GATE_UP, GATE_DOWN}) {
        sum.packets[way] += more.packets[way];
        sum.bytes[way] += more.bytes[way];
    }
    sum.denied += more.denied;
    sum.limited += more.limited;
}

} // namespace

struct flow_counters::at_hand {
    gate_counter counter = {};
    uint64_t taken = 0; // of all processors together
    bool moves = false; // to the map, at this moment
};

flow_counters::flow_counters(int flows_fd, int recent_fd)
    : flows_fd_(flows_fd),
      processors_(possible_processors()),
      recent_(recent_fd, processors_ * GATE_RECENT * sizeof(gate_recent), PROT_READ, 0) {}

flow_counters::at_hand flow_counters::look(const gate_flow &flow) const {
    at_hand all;
    for (size_t i = 0; i < processors_; i++) {
        gate_recent &one = recent_.get()[i * GATE_RECENT + gate_place(&flow)];
        const uint64_t taken = read_word(one.taken);
        all.taken += taken;
        if (memcmp(&one.flow, &flow, sizeof flow) != 0)
            continue;
        all.moves = all.moves || taken % 2 != 0;
        add(all.counter, one.counter);
    }
    return all;
}

// What moves to the map between the two looks would be counted twice, or not at all.
gate_counter flow_counters::of(const gate_flow &flow) const {
    gate_counter counter = {};
    for (int i = 0; i < TRIES; i++) {
        const at_hand before = look(flow);
        if (bpf_map_lookup_elem(flows_fd_, &flow, &counter) != 0)
            counter = {};
        add(counter, before.counter);
        if (!before.moves && look(flow).taken == before.taken)
            break;
    }
    return counter;
}

} // namespace avcore
