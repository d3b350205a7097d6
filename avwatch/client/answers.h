// Whole answers, for who has nothing to do but wait for them. Each throws no_watch where the next
// message takes more than ten seconds, and refused where avcore says why it can't answer, or where
// there is no end of the answer.
#pragma once

#include "avwatch/client/watch_client.h"

#include <functional>
#include <vector>

namespace avwatch {

inline constexpr std::chrono::seconds ANSWER_PATIENCE{10};
// No avcore has as many flows: its tables and the gate's hold fewer.
inline constexpr size_t ANSWERS_MAX = 262'144;

std::vector<flow_record> ask_flows(watch_client &avcore, const watch_filter &filter = {});
// One by one as they come, for there may be many.
void ask_flows(watch_client &avcore, const watch_filter &filter,
               const std::function<void(flow_record flow)> &take);
std::vector<client_record> ask_clients(watch_client &avcore);
// Nothing where avcore knows nothing.
std::optional<profile_record> ask_profile(watch_client &avcore, const profile_question &asked);
counts_record ask_counts(watch_client &avcore);
nlohmann::json ask_gate(watch_client &avcore);

} // namespace avwatch
