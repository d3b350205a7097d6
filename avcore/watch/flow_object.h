// A flow, its counts and sums of flows as members of the watch socket's messages.
#pragma once

#include "avcore/frames/frame.h"
#include "avcore/gate/gate.h"
#include "avcore/watch/watched_flows.h"

#include <compare>
#include <cstdint>
#include <string>
#include <string_view>

namespace avcore {

// `behind`: the gate that it is behind; null: none.
void append_flow(std::string &out, const watched_flow &flow, const gate *behind);
void append_brief(std::string &out, const watched_flow &flow); // what is counted, and for whom
void append_count(std::string &out, const watched_flow &flow);

struct sum_key {
    mac_address client_mac = {};
    std::string client; // where that isn't known
    std::string application;
    uint32_t verdict = 0;

    auto operator<=>(const sum_key &) const = default;
};
struct sum_of_flows {
    uint64_t flows = 0; // of a reader's sum: those that it was never told of
    gate_counter counts = {};
};
void append_sum(std::string &out, const sum_key &key, const sum_of_flows &sum);

std::string_view word_of(flow_event what);

// The members `up`, `down` and `dropped`.
class json_object;
void add_counts(json_object &object, const gate_counter &counts);

// All zeros: it isn't known.
bool is_known(const mac_address &mac);

} // namespace avcore
