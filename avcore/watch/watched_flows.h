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
#include "avcore/watch/flow_places.h"
#include "avcore/watch/flow_sight.h"
#include "avcore/watch/watched_flow.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace avcore {

enum class flow_event : uint8_t { begun, named, judged, ended, denied, limited };

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
    // It wants to know at once what happens.
    virtual bool takes_events() const = 0;
    // It wants the ends since then, too, that were before it came; INT64_MAX: none.
    virtual int64_t ends_from_us() const = 0;
};

class watched_flows {
public:
    static constexpr size_t MAX_ENDED = 16'384;

    struct surroundings {
        flow_table &flows;
        gate *behind; // null: no gate
        const config &settings;
        std::string run;                 // a word that no other run has
        std::function<int64_t()> now_us; // of the flows' times
        // The run before told the ends of flows until then, and no later ones; INT64_MAX: there was
        // none. Each round moves it on.
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
    // A denial was made.
    void denied(const flow_row &row);
    // All rows are to be looked at again.
    void note_all() { all_changed_ = true; }
    // Without a gate they don't outlive this program.
    void stop();

    // A round from now on: its number, for `is_done`.
    uint64_t want_round();
    uint64_t rounds_done() const { return rounds_done_; }
    int64_t round_age_us() const { return now_us() - round_begun_us_; } // since the last one began
    bool is_done(uint64_t round) const { return rounds_done_ >= round; }
    bool is_walking() const { return walking_ || wanted_; }
    // The last one that has all of the gate's counts, and how many places it has looked at with
    // them.
    uint64_t counted_round() const { return gate_walked_ ? rounds_begun_ : rounds_done_; }
    uint32_t looked_through() const { return walking_ && gate_walked_ ? next_place_ : places(); }
    // A slice of the round, if one is wanted. Takes less than a millisecond.
    void step();
    // From a round to the next one, so that they take a small part of this program's time: what the
    // last one took, many times over, within bounds.
    int64_t spared_round_ms() const;

    uint32_t places() const { return flows_.count(); }
    const watched_flow &at(uint32_t place) const { return flows_[place]; }
    uint64_t change_at(uint32_t place) const { return flows_.change_at(place); }
    uint64_t last_change() const { return flows_.last_change(); }
    int64_t now_us() const { return around_.now_us(); }
    // The flow that ended next behind the change of that number, or none.
    std::optional<uint32_t> ended_behind(uint64_t change) const;
    // Those that all readers have the end of go.
    void release_ended();

private:
    uint32_t place_of(flow_row &row);
    uint32_t place_of(const gate_flow &key, const gate_flow_state &state);
    uint32_t renew(uint32_t place);
    void attach(uint32_t place, flow_row &row);
    uint32_t observe(uint32_t place, const flow_sight &seen);
    void begin(uint32_t place, const flow_sight &seen, const gate_counter &from);
    void end_before(uint32_t place, const flow_sight &seen);
    void take_counts(uint32_t place, const flow_sight &seen);
    void look_at_row(uint32_t place);
    void look_at_noted(uint32_t place);
    bool has_news(const flow_row &row) const;
    void tell_news(uint32_t place, const row_digest &before, const row_digest &now);
    void look_at_end(uint32_t place);
    void end(uint32_t place, flow_ending how);
    void show_again(uint32_t place, const flow_sight &seen);
    void release(uint32_t place);
    void free(uint32_t place);
    bool are_events_taken() const;
    void row_leaves(flow_row &&row);
    void tell(flow_event what, uint32_t place);
    bool awaits_readers() const;
    void begin_round();
    void go_on_with_round();
    bool walk_gate();
    bool walk_places();
    void look_again(uint32_t place);
    void forget(uint32_t place);
    flow_row row_of(const gate_flow &key, const gate_flow_state &state);

    surroundings around_;
    int64_t started_us_;
    int64_t attended_us_ = 0; // since then somebody is connected
    client_rules rules_;      // for flows without a row
    kept_rows rows_;          // of the flows
    flow_places flows_;
    std::deque<uint32_t> ended_; // places, in the order of their ends
    std::vector<flow_reader *> readers_;
    bool attended_ = false;
    bool all_changed_ = false;
    bool wanted_ = false; // a round
    bool walking_ = false;
    bool gate_walked_ = false; // in this round
    bool gate_shown_ = false;  // all that it has
    bool rechecks_ = false;    // this round looks at all rows
    int64_t round_begun_us_ = 0;
    int64_t ends_from_us_ = INT64_MAX; // of the readers, for this round
    uint64_t rounds_begun_ = 0;
    uint64_t rounds_done_ = 0;
    uint64_t round_took_ns_ = 0; // so far
    uint64_t last_round_took_ns_ = 0;
    uint32_t cursor_ = 0;     // of the gate's flows
    uint32_t next_place_ = 0; // of the round
};

} // namespace avcore
