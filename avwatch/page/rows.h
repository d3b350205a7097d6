// The page's tables: of clients, applications, flows, denials or events those rows that are looked
// for, a window of them at a time, as JSON. Names are strangers', of any
// length: once an answer's texts take ANSWER_BYTES, long ones are cut.
#pragma once

#include "avwatch/page/exchange.h"
#include "avwatch/present/present.h"

#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

namespace avwatch {

enum class page_table : uint8_t { clients, applications, flows, denials, events };
enum class page_order : uint8_t { rate, bytes, flows, dropped, begun, last, name };

struct rows_query {
    // What one answer has at most: a screen's rows, and what is above and below it.
    static constexpr size_t ROWS_MAX = 200;
    static constexpr size_t ANSWER_BYTES = 256'000;
    static constexpr size_t TEXT_MAX = 256;

    page_table table = page_table::clients;
    page_order order = page_order::rate;
    bool is_reversed = false; // else the most, the latest, or the alphabet's first come first
    flow_choice chosen;
    std::string verdict; // of flows
    std::string part;    // of a name or an address, in small letters
    size_t first = 0;
    size_t rows = 50;

    bool operator==(const rows_query &) const = default;
};

// Throws bad_query, whose text says what isn't understood.
struct bad_query {
    std::string text;
};
rows_query rows_query_of(const page_request &asked);
flow_choice choice_of(const page_request &asked);

// {"total": how many there are, "first", "rows": [...]}.
nlohmann::ordered_json rows_of(const present &now, const rows_query &query, int64_t now_ms);

// What is said of one flow in full.
nlohmann::ordered_json whole_flow(const present &now, const watched_flow &flow, int64_t now_ms);

// The sums' members.
void put_sum(nlohmann::ordered_json &object, const flow_sum &sum);

} // namespace avwatch
