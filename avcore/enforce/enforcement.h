// What a run with --inline has beside any other: the gate, the enforcer that carries verdicts out
// at it, the watch over who decides, and the priority of the thread that does all this. It is there
// as a whole or not at all.
#pragma once

#include "avcore/base/line_cap.h"
#include "avcore/base/named_count.h"
#include "avcore/channel/channel_server.h"
#include "avcore/enforce/daemon_watch.h"
#include "avcore/enforce/enforcer.h"
#include "avcore/enforce/urgency.h"
#include "avcore/gate/gate.h"
#include "avcore/records/enforce_settings.h"

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace avcore {

class enforcement {
public:
    using say_function = std::function<void(const std::string &)>;

    // Opens the gate, and changes nothing of what it does so far. Throws std::runtime_error.
    // `settings` outlive it; they may change. `way`: of attaching the gate.
    enforcement(const std::string &pins, const std::vector<std::string> &interfaces,
                std::optional<attach_way> way, const enforce_settings &settings, say_function say);
    ~enforcement();
    enforcement(const enforcement &) = delete;
    enforcement &operator=(const enforcement &) = delete;

    // Once daemons can come: verdicts are asked for and carried out from here on. Both outlive it.
    void begin(const channel_server &channel, feeder &feeder);

    gate &opened() { return gate_; }
    const gate &opened() const { return gate_; }

    // For the loop: interfaces of the gate's that come and go, and the beat.
    int interfaces_fd() const { return gate_.interfaces_fd(); }
    int64_t follow_due_ms() const {
        return follow_due_ms_;
    } // those that it couldn't be attached to
    void follow_interfaces();
    int64_t next_beat_ms() const { return watch_->next_tick_ms(); }
    int64_t next_hold_ms() const { return holding_.next_tick_ms(); } // to be let go, or dropped
    // To be called in every turn of the loop.
    void look(bool link_down);
    // What this takes doesn't count against the thread's priority.
    void exempt(const std::function<void()> &work) { urgency_->exempt(work); }

    // What the gate took. False when there is nothing to ask the daemon about it.
    bool hold(const gate_copy &head, std::span<const uint8_t> frame, int64_t now_ms) {
        return holding_.take(head, frame, now_ms);
    }
    // Whether what comes next was held and waits for nothing.
    bool goes_on_next() const;
    // A copy of a packet was counted in the row, and `frame` is made of it.
    void saw(flow_row &row, const gate_copy &copy, fed_frame &frame);
    // `row`: null when it has left.
    void judged(flow_row *row, const fed_frame &frame, const av_verdict &verdict, int64_t now_ms);
    void set(flow_row &row, const av_app_setting &setting, int64_t now_ms) {
        enforcer_.set(row, setting, now_ms);
    }
    void ask_again(flow_row &row) { enforcer_.ask_again(row); }
    void policies_changed() { enforcer_.policies_changed(); }
    void settings_changed();

    // Since it began.
    bool somebody_decides() const { return watch_->somebody_decides(); }
    // What the gate does now: "deciding" or, while nobody decides, "open" or "closed".
    const char *state() const;
    std::vector<std::string> present_interfaces() const; // of the gate's, those that there are
    // Whether the log is told of a daemon that doesn't come.
    bool tells_of_waiting() const { return !settings_.rules.fail_closed; }
    uint64_t refused_writes() const { return enforcer_.refused_writes(); }
    void report(std::ostream &out) const;
    // What takes the longer the more flows the gate has is looked at once a second, at most.
    named_counts counts(); // what is reported
    // Of the gate, as its status is told. Throws std::runtime_error.
    const std::string &state_as_json();

private:
    void set_rules(const gate_rules &rules);
    const gate_census &census();
    void say_some(const std::vector<std::string> &lines, line_cap &cap, int64_t now_ms);

    std::string pins_;
    const enforce_settings &settings_;
    say_function say_;
    gate gate_;
    holding holding_;
    enforcer enforcer_;
    std::optional<daemon_watch> watch_; // since it began
    std::optional<urgency> urgency_;    // as well
    line_cap changes_;                  // of interfaces
    line_cap failures_;
    gate_census census_;
    int64_t census_due_ms_ = 0;
    int64_t look_again_ms_ = 0;
    std::string state_; // as JSON
    int64_t follow_due_ms_ = NEVER_MS;
};

// Takes the gate, and its queues, away where it stands and wasn't named. Returns where. Throws
// std::runtime_error.
std::vector<std::string> leave_others(gate &attached);

} // namespace avcore
