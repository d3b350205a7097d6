#include "avcore/enforce/enforcer.h"

#include "avcore/base/monotonic_clock.h"
#include "avcore/engine/dpi.h"
#include "avcore/flows/flow_text.h"
#include "avcore/reasons/reasons.h"
#include "core/text/text.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <netinet/in.h>
#include <string_view>

namespace avcore {
namespace {

constexpr uint16_t NO_RATE = UINT16_MAX;
constexpr uint32_t ASK_AGAIN = 0; // older than any generation

// What a traffic type is on the wire (RFC 8325, 4): the code point, and the user priority of
// IEEE 802.1D, which chooses the access category.
struct traffic_class {
    uint8_t dscp;
    uint8_t user_priority;
};
constexpr traffic_class TRAFFIC_CLASSES[] = {
    {8, 1},  // background: CS1
    {0, 0},  // best effort
    {34, 4}, // video: AF41
    {46, 6}, // voice: EF
};
// Wi-Fi drivers take a packet's priority from here on for its user priority.
constexpr uint32_t PRIORITY_OF_USER_PRIORITY = 256;

// Whether this frame's verdict may decide: until the engine is through the name may change.
bool is_late_enough(const flow_row &row, const fed_frame &frame) {
    return frame.engine_done || dpi_engine::had_enough(row.ip_proto, frame.number_in_flow);
}

void mark(gate_verdict &verdict, const av_qos &qos) {
    if (qos.mark_type < std::size(TRAFFIC_CLASSES) && qos.mark_pri <= AV_MARK_DOT1P_AND_DSCP) {
        const traffic_class &type = TRAFFIC_CLASSES[qos.mark_type];
        if (qos.mark_pri != AV_MARK_DOT1P) {
            verdict.flags |= GATE_SET_DSCP;
            verdict.dscp = type.dscp;
        }
        if (qos.mark_pri != AV_MARK_DSCP) {
            verdict.flags |= GATE_SET_PRIORITY;
            verdict.priority = PRIORITY_OF_USER_PRIORITY + type.user_priority;
        }
    }
    if (qos.classify == 1 && qos.classify_type < std::size(TRAFFIC_CLASSES)) {
        verdict.flags |= GATE_SET_PRIORITY;
        verdict.priority =
            PRIORITY_OF_USER_PRIORITY + TRAFFIC_CLASSES[qos.classify_type].user_priority;
    }
}

bool is_rate(uint16_t rate) {
    return rate != 0 && rate != NO_RATE;
}

limit_owner owner_of(enforce_settings::sharing share, const flow_row &row, std::string_view name,
                     const av_qos &qos) {
    limit_owner owner;
    owner.client = row.client.mac;
    using sharing = enforce_settings::sharing;
    if (share == sharing::client || (share == sharing::application && is_unnamed(name))) {
        owner.rates = {qos.ratelimit_up, qos.ratelimit_down};
        return owner;
    }
    owner.application = name;
    if (share == enforce_settings::sharing::flow)
        owner.flow = row.id;
    return owner;
}

bool is_limited(const gate_verdict &verdict) {
    return verdict.bucket[GATE_UP] != 0 || verdict.bucket[GATE_DOWN] != 0;
}

bool are_same(const flow_row &row, const gate_flow &flow) {
    return flow.proto == row.ip_proto && ntohs(flow.client_port_be) == row.client.port &&
           ntohs(flow.server_port_be) == row.server.port &&
           std::ranges::equal(flow.client, row.client.address.octets()) &&
           std::ranges::equal(flow.server, row.server.address.octets());
}

} // namespace

void enforcer::saw(flow_row &row, const gate_copy &copy) {
    if (!are_same(row, copy.flow))
        return;
    row.enforcement.flow = copy.flow;
    row.enforcement.if_index = copy.if_index;
}

void enforcer::judged(flow_row &row, const fed_frame &frame, const av_verdict &verdict,
                      int64_t now_ms) {
    row_enforcement &state = row.enforcement;
    const bool denies = verdict.verdict == AV_VERDICT_DENY;
    const std::string_view name = field_text(verdict.app_name);
    state.qos = verdict.qos;
    state.qos_generation = frame.generation;
    if (state.denied && state.generation == gate_.generation()) {
        // A copy of a denied flow: it was on its way, or the gate had no room for the denial.
        decide(row, GATE_DENY, nullptr, name, state.generation);
        return;
    }
    if (!denies && !state.settled && !is_late_enough(row, frame)) {
        decide_for_now(row, verdict.qos, name, frame.generation);
        return;
    }
    if (!denies) {
        decide(row, GATE_PASS, &verdict.qos, name, frame.generation);
        return;
    }
    const bool is_news = !state.denied;
    decide(row, GATE_DENY, nullptr, name, frame.generation); // first: packets don't wait
    if (is_news)
        tell_denial(row, now_ms);
}

void enforcer::set(flow_row &row, const av_app_setting &setting, int64_t now_ms) {
    const row_enforcement &state = row.enforcement;
    if (setting.verdict != AV_VERDICT_DENY) {
        // What was denied may have another policy against it: its next packet is asked about.
        if (state.settled)
            decide(row, GATE_PASS, state.qos ? &*state.qos : nullptr, row.application,
                   state.denied ? ASK_AGAIN : state.qos_generation);
        return;
    }
    const bool is_news = !state.denied;
    decide(row, GATE_DENY, nullptr, row.application, gate_.generation());
    if (is_news)
        tell_denial(row, now_ms);
}

void enforcer::ask_again(flow_row &row) {
    const row_enforcement &state = row.enforcement;
    if (!state.settled)
        return; // it is asked about
    const bool limited = !state.denied && state.qos;
    decide(row, state.denied ? GATE_DENY : GATE_PASS, limited ? &*state.qos : nullptr,
           row.application, ASK_AGAIN);
}

void enforcer::settings_changed(const std::vector<std::string> &interfaces) {
    if (settings_.shape != enforce_settings::shaping::htb)
        shaper_.remove_from(interfaces);
    policies_changed();
}

// A limit's queue is at one interface; at a new one it is made by the next verdict.
void enforcer::interfaces_changed() {
    if (settings_.shape != enforce_settings::shaping::htb)
        return;
    shaper_.forget_gone();
    policies_changed();
}

void enforcer::limit(gate_verdict &verdict, const flow_row &row, limit_owner owner,
                     gate_direction direction, uint16_t rate) {
    if (!is_rate(rate))
        return;
    owner.direction = direction;
    const uint64_t bytes_per_second = rate * settings_.bytes_per_rate_unit;
    const limit_book::place place = limits_.place_of(owner, bytes_per_second);
    // Also when it waits in a queue: the settings may change, the book's entry is told once.
    if (place.changed && !gate_.set_limit(place.bucket, limit_of(bytes_per_second)))
        ++refused_writes_;
    if (place.judge_anew)
        gate_.next_generation();
    verdict.bucket[direction] = place.bucket;
    const bool final = (verdict.flags & GATE_NOT_YET_FINAL) == 0;
    if (final && settings_.shape == enforce_settings::shaping::htb && direction == GATE_DOWN) {
        const shaper::queue queue =
            shaper_.queue_of(row.enforcement.if_index, owner, bytes_per_second);
        if (queue.judge_anew)
            gate_.next_generation();
        if (queue.priority != 0) {
            verdict.flags |= GATE_SET_PRIORITY;
            verdict.priority = queue.priority;
            verdict.queue_at = row.enforcement.if_index;
        }
    }
}

void enforcer::mark_and_limit(gate_verdict &verdict, const flow_row &row, const av_qos &qos,
                              std::string_view name) {
    mark(verdict, qos);
    if (!is_rate(qos.ratelimit_up) && !is_rate(qos.ratelimit_down))
        return;
    const limit_owner owner = owner_of(settings_.share, row, name, qos);
    limit(verdict, row, owner, GATE_UP, qos.ratelimit_up);
    limit(verdict, row, owner, GATE_DOWN, qos.ratelimit_down);
}

// Later fragments show no ports: they are under the limit that a flow of their addresses has.
void enforcer::write(const flow_row &row, const gate_verdict &verdict) {
    if (!row.enforcement.flow)
        return;
    refused_writes_ += !holding_.decide(*row.enforcement.flow, verdict, monotonic_ms());
    if (!is_limited(verdict))
        return;
    gate_flow fragments = *row.enforcement.flow;
    fragments.client_port_be = fragments.server_port_be = 0;
    fragments.proto = 0;
    fragments.fragments = 1;
    refused_writes_ += !gate_.decide(fragments, verdict);
}

void enforcer::decide_for_now(flow_row &row, const av_qos &qos, std::string_view name,
                              uint32_t generation) {
    row_enforcement &state = row.enforcement;
    gate_verdict verdict = {};
    verdict.generation = generation;
    verdict.action = GATE_PASS;
    verdict.flags = GATE_NOT_YET_FINAL;
    mark_and_limit(verdict, row, qos, name);
    const bool awaited = state.flow && holding_.waits(*state.flow);
    const bool says_something = verdict.flags != GATE_NOT_YET_FINAL || is_limited(verdict) ||
                                settings_.rules.drop_excess || settings_.rules.hold_undecided ||
                                awaited;
    const bool written =
        !awaited && state.not_final && memcmp(&*state.not_final, &verdict, sizeof verdict) == 0;
    if (written || (!says_something && !state.not_final))
        return;
    state.not_final = verdict;
    write(row, verdict);
}

void enforcer::decide(flow_row &row, gate_action action, const av_qos *qos, std::string_view name,
                      uint32_t generation) {
    row_enforcement &state = row.enforcement;
    gate_verdict verdict = {};
    verdict.generation = generation;
    verdict.action = static_cast<uint8_t>(action);
    if (verdict.action == GATE_DENY && settings_.reset)
        verdict.flags |= GATE_RESET;
    if (qos != nullptr)
        mark_and_limit(verdict, row, *qos, name);
    write(row, verdict);
    state.settled = true;
    state.denied = verdict.action == GATE_DENY;
    state.generation = verdict.generation;
}

void enforcer::tell_denial(const flow_row &row, int64_t now_ms) {
    if (denials_.admits(now_ms))
        say_("denied: " + flow_text(row) + ": " + row.reason.denial_text + denials_.remark());
}

} // namespace avcore
