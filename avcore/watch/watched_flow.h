// A flow as the watch socket tells of it: what was last seen of it, what is known of it, how it
// ended.
#pragma once

#include "avcore/flows/flow_table.h"
#include "avcore/gate/gate.h"
#include "avcore/watch/flow_sight.h"
#include "avcore/watch/kept_rows.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace avcore {

inline constexpr int64_t LINGER_US = 3'000'000; // the last packets come after FIN and RST

enum class flow_ending : uint8_t { none, fin, reset, idle, forgotten, stopped };

flow_ending ending_by(uint8_t ends); // bits of gate_end, of a flow that is over
// None while it goes on.
flow_ending ending_of(const flow_sight &seen, int64_t now_us);
// From when on there is one.
int64_t ends_us(const flow_sight &seen);

// By what it is seen that a row says something else than before.
struct row_digest {
    uint64_t all = 0;     // but counts
    size_t name = 0;      // 0: it has none
    uint32_t verdict = 0; // 0 while it is outdated
};
row_digest digest_of(const flow_row &row);

// What a flow is called; empty where the daemon has no more than its addresses for a name.
const std::string &name_of(const flow_row &row);

struct watched_flow {
    bool used = false;    // there is a flow at this place,
    bool current = false; // and none of the same sides has followed it
    bool at_gate = false;
    gate_flow key = {};      // there
    flow_row *row = nullptr; // in the table of flows; null: it has left, or there was none
    // What is known of it where that isn't the row's: as it was when it left, or when the flow was
    // over; what the key says where the gate alone knows the flow. One of the two is there.
    kept_rows::kept_row own;
    std::string id;
    flow_sight seen;        // latest; `begun` is 0 before the first one
    gate_counter from = {}; // of `seen.counted`, what isn't this flow's
    gate_counter counts = {};
    unsigned continued = 0; // times that packets came after its end
    row_digest digest;      // of what was last seen of the row
    uint64_t essence = 0;   // number of the last change of anything but counts and the end
    flow_ending ending = flow_ending::none;
    uint64_t ended = 0;        // number of that change
    bool awaits = false;       // that all readers take its end
    bool is_earlier = false;   // it was over before this run looked
    bool is_asked = false;     // it was over before, and is told to who wants that
    bool is_summed = false;    // some readers have it in a sum, without its id
    bool denial_waits = false; // for the first sight of the flow
    uint32_t round = 0;        // when the gate was last seen to have it

    bool is_over() const { return ending != flow_ending::none; }
    // Who comes now is told of its end, too.
    bool is_for_all() const { return is_earlier && awaits; }
    bool can_be_told() const { return used && seen.begun != 0 && !id.empty(); }
    const flow_row &known() const { return own ? *own : *row; }
};

// Behind a gate whoever sees the flow calls it the same: its sides and the moment at which it
// began. Otherwise the rows' numbers are those of a run alone: `run` is a word that no other has.
void write_id(watched_flow &flow, const std::string &run);

} // namespace avcore
