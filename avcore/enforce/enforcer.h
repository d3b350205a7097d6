// Carries the daemon's verdicts out: says when one has decided its flow, and what the gate then
// does to the flow's packets.
//
// A denial decides at once. Anything else is the daemon's opinion of what it has seen so far: its
// limits and marks hold, but it decides when the DPI engine is through with the flow or has had
// enough packets. A denial holds until the policies change or the daemon says otherwise about this
// very flow.
#pragma once

#include "avcore/base/line_cap.h"
#include "avcore/enforce/holding.h"
#include "avcore/enforce/limits.h"
#include "avcore/enforce/shaper.h"
#include "avcore/feed/feeder.h"
#include "avcore/flows/flow_table.h"
#include "avcore/gate/gate.h"
#include "avcore/records/enforce_settings.h"
#include "platform/host/messages/av_messages.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace avcore {

class enforcer {
public:
    using say_function = std::function<void(const std::string &)>;

    // All of them outlive the enforcer; the settings may change.
    enforcer(gate &gate, holding &holding, const enforce_settings &settings, say_function say)
        : gate_(gate),
          holding_(holding),
          settings_(settings),
          say_(std::move(say)),
          shaper_(say_) {}

    // A copy of a packet that was counted in the row.
    // Where the gate has it in another flow (a first fragment of TCP, whose ports the daemon
    // doesn't read), the row's verdicts are about no flow of the gate's.
    void saw(flow_row &row, const gate_copy &copy);

    // The verdict on one of the row's frames. Row and verdict go together with the row's reason,
    // which the log has of a denial.
    void judged(flow_row &row, const fed_frame &frame, const av_verdict &verdict, int64_t now_ms);
    // The daemon decides about the flow without a frame. Its "allow" leaves marks and limits as
    // they are, and decides nothing where nothing is decided yet.
    void set(flow_row &row, const av_app_setting &setting, int64_t now_ms);
    // It has another name by now, perhaps: what decided it holds until its next packet was judged.
    void ask_again(flow_row &row);
    // The policies changed.
    void policies_changed() { gate_.next_generation(); }
    // The settings changed; `interfaces`: where the gate is.
    void settings_changed(const std::vector<std::string> &interfaces);

    // Interfaces of the gate's came or went.
    void interfaces_changed();

    uint64_t refused_writes() const { return refused_writes_; }

private:
    // `generation`: of the policies by which it was decided.
    void decide(flow_row &row, gate_action action, const av_qos *qos, std::string_view name,
                uint32_t generation);
    // Limits and marks of a flow that is still looked at.
    void decide_for_now(flow_row &row, const av_qos &qos, std::string_view name,
                        uint32_t generation);
    void mark_and_limit(gate_verdict &verdict, const flow_row &row, const av_qos &qos,
                        std::string_view name);
    void limit(gate_verdict &verdict, const flow_row &row, limit_owner owner,
               gate_direction direction, uint16_t rate);
    void write(const flow_row &row, const gate_verdict &verdict);
    void tell_denial(const flow_row &row, int64_t now_ms);

    gate &gate_;
    holding &holding_;
    const enforce_settings &settings_;
    say_function say_;
    shaper shaper_;
    limit_book limits_;
    line_cap denials_;
    uint64_t refused_writes_ = 0;
};

} // namespace avcore
