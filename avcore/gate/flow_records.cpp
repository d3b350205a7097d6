#include "avcore/gate/flow_records.h"

#include "avcore/base/monotonic_clock.h"
#include "avcore/gate/maps.h"

#include <algorithm>
#include <bpf/bpf.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/mman.h>

namespace avcore {
namespace {

constexpr int TRIES = 32; // where two processors begin it all the time, one in some fails
constexpr size_t LEAST_AT_ONCE = 256;      // the kernel shows a bucket of its table whole
constexpr int64_t CLOCK_WAS_SET = 100'000; // us; less is that this program had to wait

void add(gate_counter &sum, const gate_counter &more) {
    for (const gate_direction way : {GATE_UP, GATE_DOWN}) {
        sum.packets[way] += more.packets[way];
        sum.bytes[way] += more.bytes[way];
    }
    sum.denied += more.denied;
    sum.limited += more.limited;
}

gate_counter difference(const gate_counter &all, const gate_counter &less) {
    const auto minus = [](__u64 a, __u64 b) { return a - std::min(a, b); };
    gate_counter rest = {};
    for (const gate_direction way : {GATE_UP, GATE_DOWN}) {
        rest.packets[way] = minus(all.packets[way], less.packets[way]);
        rest.bytes[way] = minus(all.bytes[way], less.bytes[way]);
    }
    rest.denied = minus(all.denied, less.denied);
    rest.limited = minus(all.limited, less.limited);
    return rest;
}

int64_t microseconds(uint64_t ns) {
    return static_cast<int64_t>(ns / 1000);
}

} // namespace

struct flow_records::at_hand {
    gate_counter counter = {};
    uint32_t taken = 0; // of all processors together
    bool moves = false; // to the record, or the record changes, at this moment
};

flow_records::flow_records(int flows_fd, int recent_fd)
    : flows_fd_(flows_fd),
      processors_(possible_processors()),
      recent_(recent_fd, processors_ * GATE_RECENT * sizeof(gate_recent), PROT_READ, 0) {}

flow_records::at_hand flow_records::look(const gate_flow &flow) const {
    at_hand all;
    for (size_t i = 0; i < processors_; i++) {
        gate_recent &one = recent_.get()[i * GATE_RECENT + gate_place(&flow)];
        const uint32_t taken = read_word(one.taken);
        all.taken += taken;
        if (memcmp(&one.flow, &flow, sizeof flow) != 0)
            continue;
        all.moves = all.moves || taken % 2 != 0;
        add(all.counter, one.counter);
    }
    return all;
}

void flow_records::look_who_takes() const {
    taken_.assign(GATE_RECENT, 0);
    for (size_t i = 0; i < processors_ * GATE_RECENT; i++)
        taken_[i % GATE_RECENT] += read_word(recent_.get()[i].taken);
}

// With what is at hand. What moves to the record between the two looks would be counted twice, or
// not at all, and where a flow begins anew meanwhile one would see half of that. False: there is no
// record.
bool flow_records::read(const gate_flow &flow, gate_flow_record &record) const {
    bool known = false;
    for (int i = 0; i < TRIES; i++) {
        const at_hand before = look(flow);
        known = bpf_map_lookup_elem(flows_fd_, &flow, &record) == 0;
        if (!known)
            record = {};
        add(record.counter, before.counter);
        if (!before.moves && look(flow).taken == before.taken)
            break;
    }
    return known;
}

gate_counter flow_records::counter_of(const gate_flow &flow) const {
    gate_flow_record record = {};
    read(flow, record);
    return record.counter;
}

void flow_records::look_at_clocks() const {
    const int64_t ahead_us = wall_ahead_us();
    if (std::abs(ahead_us - ahead_us_) > CLOCK_WAS_SET)
        ahead_us_ = ahead_us;
}

gate_flow_state flow_records::state_of(const gate_flow_record &record) const {
    gate_flow_state state;
    state.counts = difference(record.counter, record.before);
    state.before = record.before;
    state.begun_ns = record.begun_ns;
    state.begun_us = microseconds(record.begun_ns) + ahead_us_;
    state.last_us = microseconds(record.last_ns) + ahead_us_;
    state.ended = static_cast<uint8_t>((record.fin[GATE_UP] ? GATE_FIN_UP : 0) |
                                       (record.fin[GATE_DOWN] ? GATE_FIN_DOWN : 0) |
                                       (record.reset ? GATE_RST : 0));
    state.mac = std::to_array(record.mac);
    state.if_index = record.if_index;
    return state;
}

std::optional<gate_flow_state> flow_records::find(const gate_flow &flow) const {
    gate_flow_record record = {};
    if (!read(flow, record))
        return std::nullopt;
    look_at_clocks();
    return state_of(record);
}

flow_walk flow_records::walk(uint32_t &cursor, size_t max, const flow_visitor &visit) const {
    walked_.resize(std::max(max, LEAST_AT_ONCE));
    records_.resize(walked_.size());
    auto count = static_cast<uint32_t>(walked_.size());
    uint32_t next = 0;
    look_who_takes();
    const int error = bpf_map_lookup_batch(flows_fd_, cursor == 0 ? nullptr : &cursor, &next,
                                           walked_.data(), records_.data(), &count, nullptr);
    if (error != 0 && error != -ENOENT)
        count = 0;
    look_at_clocks();
    for (uint32_t i = 0; i < count; i++) {
        const at_hand at = look(walked_[i]);
        const bool as_read = !at.moves && at.taken == taken_[gate_place(&walked_[i])];
        if (!as_read && !read(walked_[i], records_[i]))
            continue;
        if (as_read)
            add(records_[i].counter, at.counter);
        visit(walked_[i], state_of(records_[i]));
    }
    cursor = error == 0 ? next : 0;
    if (error == 0)
        return flow_walk::goes_on;
    return error == -ENOENT ? flow_walk::ended : flow_walk::broken;
}

} // namespace avcore
