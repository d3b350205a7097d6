#include "avcore/enforce/enforcement.h"

#include "avcore/base/monotonic_clock.h"
#include "avcore/enforce/gate_report.h"
#include "avcore/enforce/shaper.h"

#include <algorithm>
#include <net/if.h>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace avcore {
namespace {

constexpr int64_t FOLLOW_AGAIN_MS = 1'000;
constexpr int64_t LOOK_AGAIN_MS = 1'000;
constexpr int64_t SPARED_PARTS = 1'000; // of the time, one is for the census
constexpr int64_t LONGEST_SPARED_MS = 60'000;

} // namespace

enforcement::enforcement(const std::string &pins, const std::vector<std::string> &interfaces,
                         std::optional<attach_way> way, const enforce_settings &settings,
                         say_function say)
    : pins_(pins),
      settings_(settings),
      say_(std::move(say)),
      gate_(pins, interfaces, way, settings.rules),
      holding_(gate_, settings_),
      enforcer_(gate_, holding_, settings_, say_) {}

enforcement::~enforcement() {
    if (!watch_)
        return;
    watch_->leave_time();
    gate_.leave();
}

void enforcement::begin(const channel_server &channel, feeder &feeder) {
    if (settings_.rules.hold_undecided)
        gate_.open_way_back();
    set_rules(settings_.rules);
    policies_changed(); // as far as anyone knows, since the last run
    watch_.emplace(gate_, settings_, channel, feeder, say_, monotonic_ms());
    urgency_.emplace(say_);
    for (const std::string &way : ways_past_gate(pins_, gate_.interfaces()))
        say_("past the gate: " + way);
    follow_interfaces();
}

void enforcement::follow_interfaces() {
    const interface_news news = gate_.follow_interfaces();
    const int64_t now_ms = monotonic_ms();
    follow_due_ms_ = gate_.misses_interfaces() ? now_ms + FOLLOW_AGAIN_MS : NEVER_MS;
    say_some(news.changes, changes_, now_ms);
    say_some(news.failures, failures_, now_ms);
    if (!news.empty())
        enforcer_.interfaces_changed();
}

void enforcement::look(bool link_down) {
    watch_->look(link_down, monotonic_ms());
    holding_.tick(monotonic_ms());
    urgency_->look(monotonic_ns());
}

void enforcement::saw(flow_row &row, const gate_copy &copy, fed_frame &frame) {
    enforcer_.saw(row, copy);
    frame.generation = gate_.generation();
}

void enforcement::judged(flow_row *row, const fed_frame &frame, const av_verdict &verdict,
                         int64_t now_ms) {
    if (watch_->answered(now_ms))
        policies_changed();
    if (row != nullptr)
        enforcer_.judged(*row, frame, verdict, now_ms);
}

bool enforcement::goes_on_next() const {
    const std::optional<gate_copy> head = gate_.next_head();
    return head && head->held != 0 && holding_.goes_on(head->flow);
}

void enforcement::set_rules(const gate_rules &rules) {
    gate_.set_rules(rules);
    if (rules.hold_undecided && !rules.fail_closed)
        say_("undecided = \"hold\" wants fail = \"closed\": with \"open\" everything "
             "passes whenever verdicts take longer than a second");
}

void enforcement::settings_changed() {
    gate_rules rules = settings_.rules;
    try {
        if (rules.hold_undecided)
            gate_.open_way_back();
    } catch (const std::runtime_error &error) {
        say_(error.what());
        rules.hold_undecided = false;
    }
    set_rules(rules);
    enforcer_.settings_changed(gate_.interfaces());
}

void enforcement::report(std::ostream &out) const {
    print_gate_counts(out, gate_.counts(), gate_.endings(), gate_.census().forgotten_flows);
}

const char *enforcement::state() const {
    if (somebody_decides())
        return "deciding";
    return settings_.rules.fail_closed ? "closed" : "open";
}

std::vector<std::string> enforcement::present_interfaces() const {
    std::vector<std::string> names = gate_.interfaces();
    std::erase_if(names, [](const std::string &name) { return if_nametoindex(name.c_str()) == 0; });
    return names;
}

named_counts enforcement::counts() {
    return gate_counts_by_name(gate_.counts(), gate_.endings(), census().forgotten_flows);
}

// The fuller the gate's tables are, the seldomer.
const gate_census &enforcement::census() {
    const int64_t begun_ms = monotonic_ms();
    if (begun_ms >= census_due_ms_) {
        census_ = gate_.census();
        const int64_t now_ms = monotonic_ms();
        census_due_ms_ = now_ms + std::clamp((now_ms - begun_ms) * SPARED_PARTS, LOOK_AGAIN_MS,
                                             LONGEST_SPARED_MS);
    }
    return census_;
}

const std::string &enforcement::state_as_json() {
    const int64_t now_ms = monotonic_ms();
    if (now_ms >= look_again_ms_) {
        std::ostringstream out;
        print_gate_status_json(out, look_at_gate(pins_, &census()));
        state_ = out.str();
        state_.erase(state_.find_last_not_of('\n') + 1);
        look_again_ms_ = now_ms + LOOK_AGAIN_MS;
    }
    return state_;
}

void enforcement::say_some(const std::vector<std::string> &lines, line_cap &cap, int64_t now_ms) {
    for (const std::string &line : lines)
        if (cap.admits(now_ms))
            say_(line + cap.remark());
}

std::vector<std::string> leave_others(gate &attached) {
    std::vector<std::string> left = attached.leave_others();
    for (const std::string &name : left)
        remove_shaping(name);
    return left;
}

} // namespace avcore
