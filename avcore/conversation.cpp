#include "avcore/conversation.h"

#include "avcore/base/monotonic_clock.h"
#include "avcore/base/printable.h"
#include "avcore/channel/platform_values.h"
#include "avcore/channel/tool_answers.h"
#include "avcore/reasons/reasons.h"

#include <algorithm>
#include <iterator>
#include <utility>
#include <variant>

namespace avcore {
namespace {

constexpr size_t SWITCHES_MAX = 256; // clients name the interfaces

} // namespace

struct conversation::question_row {
    av_op op;
    channel_answer (conversation::*answer)(const question &asked);
};

// Of the daemon's; a tool's are another table.
const conversation::question_row conversation::QUESTIONS[] = {
    {av_op::rflow_get_roam, &conversation::roam_flows},
    {av_op::dnscache_get_name, &conversation::domain_name},
    {av_op::urlfilter_get_category, &conversation::category},
    {av_op::platform_value, &conversation::platform_value},
    {av_op::name_page, &conversation::name_page},
};

channel_answer conversation::take(byte_span datagram) {
    const std::optional<channel_message> message = parse_message(datagram);
    if (!message) {
        ++malformed_;
        return {};
    }
    if (const auto *asked = std::get_if<question>(&*message))
        return answer(*asked);
    std::visit(
        [this](const auto &said) {
            if constexpr (!std::is_same_v<decltype(said), const question &>)
                hear(said);
        },
        *message);
    return {};
}

void conversation::outdate_verdicts() {
    with_.builder.flows().outdate_verdicts();
    if (with_.at_gate != nullptr)
        with_.at_gate->policies_changed();
    if (with_.watched_by != nullptr)
        with_.watched_by->policies_changed();
}

// Without a gate each frame is judged.
void conversation::brought(std::string_view topic, std::span<const std::byte> payload) {
    if (with_.at_gate != nullptr)
        named_.add(topic, payload, monotonic_ms());
}

void conversation::use_names() {
    for (flow_row *row : named_.take_flows(with_.builder.flows()))
        with_.at_gate->ask_again(*row);
}

bool conversation::is_denied(const flow_row &row) const {
    return with_.at_gate != nullptr ? row.enforcement.denied : row.verdict == AV_VERDICT_DENY;
}

void conversation::judged(flow_row &row, bool was_denied) {
    if (with_.watched_by == nullptr)
        return;
    with_.watched_by->note(row);
    if (!was_denied && is_denied(row))
        with_.watched_by->denied(row);
}

void conversation::hear(const av_verdict &verdict) {
    const int64_t now_ms = monotonic_ms();
    const std::optional<fed_frame> frame = with_.frames.take_verdict(verdict.flow_key, now_ms);
    if (!frame)
        return;
    const flow_row *before = with_.builder.flows().find(frame->flow);
    const bool was_denied = before != nullptr && is_denied(*before);
    flow_row *row = with_.builder.flows().set_verdict(frame->flow, verdict, frame->trailer());
    if (row != nullptr)
        row->reason = reason_of(*row, *frame, verdict);
    if (with_.at_gate != nullptr)
        with_.at_gate->judged(row, *frame, verdict, now_ms);
    if (row != nullptr)
        judged(*row, was_denied);
    const bool ignored = ignores_engine(frame->trailer(), verdict);
    if (!std::exchange(engine_ignored_, engine_ignored_ || ignored) && engine_missed())
        with_.say("the daemon does without the DPI engine, and names flows less well: it asks "
                  "once, at its start, when avcore has to be there; start it again");
}

void conversation::hear(const av_app_setting &setting) {
    for (flow_row *row : with_.builder.flows().set_application(setting)) {
        const bool was_denied = !row->reason.denial_text.empty();
        row->reason = reason_of(*row, setting);
        if (with_.at_gate != nullptr)
            with_.at_gate->set(*row, setting, monotonic_ms());
        judged(*row, was_denied);
    }
}

void conversation::hear(const switch_setting &setting) {
    constexpr const char *names[] = {"", "av", "url", "wfc", "tm"};
    std::string name = names[static_cast<uint32_t>(setting.which)];
    if (!setting.if_name.empty())
        name += ' ' + printable(setting.if_name);
    if (switches_.size() < SWITCHES_MAX || switches_.contains(name))
        switches_[name] = setting.value;
}

void conversation::hear(const av_safesearch_setting &setting) {
    if (with_.resolvers == nullptr)
        return;
    const std::string refusal = with_.resolvers->take(setting);
    if (!refusal.empty() && with_.resolvers->refused() == 1)
        with_.say("safe search: " + refusal);
}

void conversation::hear(const syslog_line &line) {
    const std::string text = with_real_addresses(
        line.text, [this](uint32_t ip_be) { return with_.builder.stand_ins().real(ip_be); });
    with_.say("syslog, level " + std::to_string(line.level) + ": " + printable(text));
}

channel_answer conversation::answer(const question &asked) {
    const auto *row =
        std::find_if(std::begin(QUESTIONS), std::end(QUESTIONS),
                     [&](const question_row &each) { return each.op == asked.head.op; });
    return row != std::end(QUESTIONS)
               ? (this->*row->answer)(asked)
               : channel_answer{
                     answer_tool(with_.builder.engine(), with_.settings, with_.inputs, asked)};
}

channel_answer conversation::roam_flows(const question &asked) {
    return {answer_roam_flows(with_.builder.flows(), with_.builder.time_us(), asked)};
}

channel_answer conversation::domain_name(const question &asked) {
    with_.names.advance(with_.frames.judged());
    return {answer_domain_name(with_.names, with_.builder.stand_ins(), asked)};
}

channel_answer conversation::category(const question &asked) {
    return {with_.agent.answer(asked, monotonic_ms())};
}

channel_answer conversation::platform_value(const question &asked) {
    engine_asked_ |= asked_key(asked) == AV_KEY_DPI_ENGINE;
    return {answer_platform_value(with_.settings, asked)};
}

channel_answer conversation::name_page(const question &asked) {
    const int page = with_.names.word().descriptor();
    return {make_answer(asked, page >= 0 ? 0 : -1), page};
}

bool conversation::engine_missed() const {
    return with_.builder.has_engine() && !engine_asked_ && engine_ignored_;
}

} // namespace avcore
