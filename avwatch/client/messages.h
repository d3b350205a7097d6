// A line of the watch socket, taken apart.
#pragma once

#include "avwatch/client/records.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace avwatch {

// The answer is complete.
struct answer_end {};
// A question couldn't be answered, or the connection is refused.
struct answer_error {
    std::string text;
};
// What was there when the following began has been sent.
struct listing_end {};
struct lost_events {
    uint64_t count = 0;
};
// As `avcore status --json` has it; null where avcore has no gate. Not deeper nested than
// NESTING_MAX, else anything.
struct gate_state {
    nlohmann::json said;
};

// The greeting isn't among them: watch_client keeps it.
struct message {
    std::optional<uint32_t> id; // of the question or following that it belongs to
    std::variant<flow_record, brief_record, count_record, sum_record, event_record, client_record,
                 counts_record, profile_record, gate_state, answer_end, answer_error, listing_end,
                 lost_events>
        what;
};

// How deep values may nest: what writes and releases JSON takes stack for each level.
inline constexpr size_t NESTING_MAX = 16;

// JSON of a line without its end; nothing for what isn't JSON or nests too deep.
std::optional<nlohmann::json> parse_line(std::string_view line);
// Nothing for what isn't a message, or is one that nobody here knows.
std::optional<message> message_of(const nlohmann::json &object);

} // namespace avwatch
