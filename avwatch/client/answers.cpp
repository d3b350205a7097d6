#include "avwatch/client/answers.h"

#include "avwatch/base/failure.h"

namespace avwatch {
namespace {

// Other messages of the connection are passed over.
template <typename Record, typename Taker>
void take_answer(watch_client &avcore, uint32_t id, const Taker &take) {
    size_t answers = 0;
    while (true) {
        message next = avcore.wait(ANSWER_PATIENCE);
        if (next.id != id)
            continue;
        if (std::holds_alternative<answer_end>(next.what))
            return;
        if (const auto *error = std::get_if<answer_error>(&next.what))
            throw refused("avcore doesn't answer: " + error->text);
        if (auto *answer = std::get_if<Record>(&next.what))
            take(std::move(*answer));
        else
            continue;
        if (++answers > ANSWERS_MAX)
            throw refused("avcore answers without end");
    }
}

template <typename Record>
std::vector<Record> whole_answer(watch_client &avcore, uint32_t id) {
    std::vector<Record> answers;
    take_answer<Record>(avcore, id, [&](Record answer) { answers.push_back(std::move(answer)); });
    return answers;
}

} // namespace

std::vector<flow_record> ask_flows(watch_client &avcore, const watch_filter &filter) {
    return whole_answer<flow_record>(avcore, avcore.ask(question::flows, filter));
}

void ask_flows(watch_client &avcore, const watch_filter &filter,
               const std::function<void(flow_record flow)> &take) {
    take_answer<flow_record>(avcore, avcore.ask(question::flows, filter), take);
}

std::vector<client_record> ask_clients(watch_client &avcore) {
    return whole_answer<client_record>(avcore, avcore.ask(question::clients));
}

std::optional<profile_record> ask_profile(watch_client &avcore, const profile_question &asked) {
    auto answers = whole_answer<profile_record>(avcore, avcore.ask(asked));
    return answers.empty() ? std::nullopt : std::optional(std::move(answers.back()));
}

counts_record ask_counts(watch_client &avcore) {
    const auto answers = whole_answer<counts_record>(avcore, avcore.ask(question::counts));
    return answers.empty() ? counts_record() : answers.back();
}

nlohmann::json ask_gate(watch_client &avcore) {
    auto answers = whole_answer<gate_state>(avcore, avcore.ask(question::gate));
    return answers.empty() ? nlohmann::json() : std::move(answers.back().said);
}

} // namespace avwatch
