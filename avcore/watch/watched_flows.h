// The flows that the watch socket tells of, each with its latest values: the rows of the table of
// flows and, behind a gate, what that counts, also of flows that have no row (avcore was started
// again, or the row had to leave).
//
// A flow has a place here, which it keeps; whatever changes gets a number, counted up, so that a
// reader who remembers one number of each place knows what is new to it. Nothing is made for
// readers: each looks here when it can take more. What the same two sides begin after an end is a
// flow of its own, at another place. A flow that is over stays until all readers have its end, or
// until too many such flows wait; the readers add the first of them up then.
//
// The gate's counts are looked at in rounds, a slice in each turn of the loop.
#pragma once

#include "avcore/flows/flow_life.h"
#include "avcore/flows/flow_table.h"
#include "avcore/gate/gate.h"
#include "avcore/settings/client_rules.h"
#include "avcore/watch/flow_sight.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace avcore {

enum class flow_ending : uint8_t { none, fin, reset, idle, forgotten, stopped };

enum class flow_event : uint8_t { begun, named, judged, ended, denied, limited };

struct watched_flow {
    bool used = false;    // there is a flow at this place,
    bool current = false; // and none of the same sides has followed it
    bool at_gate = false;
    gate_flow key = {};      // there
    flow_row *row = nullptr; // in the table of flows; null: it has left, or there was none
    // What is known of it where that isn't the row's: as it was when it left, or when the flow was
    // over; what the key says where the gate alone knows the flow. One of the two is there.
    std::unique_ptr<flow_row> own;
    std::string id;
    flow_sight seen;        // latest; `begun` is 0 before the first one
    gate_counter from = {}; // of `seen.counted`, what isn't this flow's
    gate_counter counts = {};
    unsigned continued = 0; // times that packets came after its end
    uint64_t essence = 0;   // number of the last change of anything but counts
    size_t name_hash = 0;   // of what was last seen of the row, as is
    size_t essence_hash = 0;
    uint32_t verdict = 0; // 0 while it is outdated
    flow_ending ending = flow_ending::none;
    uint64_t ended = 0;  // number of that change
    bool awaits = false; // that all readers take its end
    uint32_t round = 0;  // when the gate last had it

    bool is_over() const { return ending != flow_ending::none; }
    bool can_be_told() const { return used && seen.begun != 0 && !id.empty(); }
    const flow_row &known() const { return own ? *own : *row; }
};

// What a flow is called; empty where the daemon has no more than its addresses for a name.
const std::string &name_of(const flow_row &row);

// Who takes flows out of the table.
class flow_reader {
public:
    virtual ~flow_reader() = default;
    // Whether it needs nothing more of a flow that is over.
    virtual bool has_end(uint32_t place) const = 0;
    // The flow goes without that: it adds up what it doesn't have.
    virtual void sum_up(uint32_t place) = 0;
    // Another flow may get the place.
    virtual void leave(uint32_t place) = 0;
    virtual void happened(flow_event what, uint32_t place) = 0;
};

class watched_flows {
public:
    static constexpr size_t MAX_ENDED = 16'384;
    static constexpr int64_t LINGER_US = 3'000'000; // the last packets come after FIN and RST

    struct surroundings {
        flow_table &flows;
        gate *behind; // null: no gate
        const config &settings;
        std::string run;                 // a word that no other run has
        std::function<int64_t()> now_us; // of the flows' times
        // A run before told the ends of flows until then, and no later ones; INT64_MAX: there was
        // none.
        int64_t told_until_us = INT64_MAX;
    };
    explicit watched_flows(surroundings around);
    ~watched_flows();

    // Somebody is connected. Until then only the rows are followed.
    void attend(bool attended);
    void add(flow_reader &reader) { readers_.push_back(&reader); }
    void remove(flow_reader &reader);

    // A frame was counted in the row, or something else about it may have changed.
    void note(flow_row &row);
    void happened(flow_event what, const flow_row &row);
    // All rows are to be looked at again.
    void note_all() { all_changed_ = true; }
    // Without a gate they don't outlive this program.
    void stop();

    // A round from now on: its number, for `is_done`.
    uint64_t want_round();
    uint64_t rounds_done() const { return rounds_done_; }
    bool is_done(uint64_t round) const { return rounds_done_ >= round; }
    bool is_walking() const { return walking_ || wanted_; }
    // A slice of the round, if one is wanted. Takes less than a millisecond.
    void step();

    uint32_t places() const { return static_cast<uint32_t>(flows_.size()); }
    const watched_flow &at(uint32_t place) const { return flows_[place]; }
    uint64_t change_at(uint32_t place) const { return changes_[place]; }
    uint64_t last_change() const { return last_change_; }
    int64_t now_us() const { return around_.now_us(); }
    // Those that all readers have the end of go.
    void release_ended();

private:
    struct key_hash {
        uint64_t seed;
        size_t operator()(const gate_flow &key) const;
    };
    struct same_key {
        bool operator()(const gate_flow &a, const gate_flow &b) const;
    };

    uint32_t new_place();
    uint32_t place_of(flow_row &row);
    uint32_t place_of(const gate_flow &key, const gate_flow_state &state);
    uint32_t renew(uint32_t place);
    void attach(uint32_t place, flow_row &row);
    uint32_t observe(uint32_t place, const flow_sight &seen);
    void begin(uint32_t place, const flow_sight &seen, const gate_counter &from);
    void end_before(uint32_t place, const flow_sight &seen);
    void take_counts(uint32_t place, const flow_sight &seen);
    void look_at_row(uint32_t place);
    void look_at_end(uint32_t place, int64_t now_us);
    void end(uint32_t place, flow_ending how);
    void release(uint32_t place);
    void free(uint32_t place);
    void row_leaves(flow_row &row);
    void change(uint32_t place);
    void tell(flow_event what, uint32_t place);
    void begin_round();
    bool walk_gate();
    bool walk_places();
    void look_again(uint32_t place, int64_t now_us);
    void forget(uint32_t place);
    std::string id_of(const watched_flow &flow) const;
    std::unique_ptr<flow_row> row_of(const gate_flow &key, const gate_flow_state &state);

    surroundings around_;
    int64_t started_us_;
    int64_t attended_us_ = 0; // since then somebody is connected
    client_rules rules_;      // for flows without a row
    std::deque<watched_flow> flows_;
    std::vector<uint64_t> changes_; // by place; 0: there is nothing
    std::vector<uint32_t> free_;
    std::unordered_map<gate_flow, uint32_t, key_hash, same_key> by_key_; // the current ones
    std::deque<uint32_t> ended_; // places, in the order of their ends
    std::vector<flow_reader *> readers_;
    uint64_t last_change_ = 0;
    bool attended_ = false;
    bool all_changed_ = false;
    bool wanted_ = false; // a round
    bool walking_ = false;
    bool gate_walked_ = false; // in this round
    bool rechecks_ = false;    // this round looks at all rows
    uint64_t rounds_begun_ = 0;
    uint64_t rounds_done_ = 0;
    uint32_t cursor_ = 0;     // of the gate's flows
    uint32_t next_place_ = 0; // of the round
};

} // namespace avcore
