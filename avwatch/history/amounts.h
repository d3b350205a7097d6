// What is counted of a client, an application and a verdict, in memory and in the database's rows.
//
// Counts come from a socket whose other end may be mistaken: none grows beyond COUNT_MAX, so that
// no sum of the database's, whose integers are signed, overflows in a row.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>

namespace avwatch {

enum amount : size_t {
    UP_PACKETS, // passed, from the client
    UP_BYTES,
    DOWN_PACKETS,
    DOWN_BYTES,
    DENIED_PACKETS,  // dropped by a denial
    LIMITED_PACKETS, // dropped by a limit
    FLOWS,
    DENIALS, // flows that came to be denied
    AMOUNTS
};

inline constexpr const char *AMOUNT_COLUMNS[] = {"up_packets", "up_bytes",       "down_packets",
                                                 "down_bytes", "denied_packets", "limited_packets",
                                                 "flows",      "denials"};
static_assert(std::size(AMOUNT_COLUMNS) == AMOUNTS);

inline constexpr size_t FLOW_COUNTS = FLOWS; // the ones before it are counted of each flow
inline constexpr uint64_t COUNT_MAX = 1ULL << 60;

using amounts = std::array<uint64_t, AMOUNTS>;
using flow_counts = std::array<uint64_t, FLOW_COUNTS>;

inline void add(amounts &sum, const amounts &more) {
    for (size_t i = 0; i < AMOUNTS; ++i)
        sum[i] = std::min(sum[i] + std::min(more[i], COUNT_MAX), COUNT_MAX);
}

} // namespace avwatch
