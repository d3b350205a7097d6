// The packet statistics: twenty numbered counters, printed when the daemon stops.
#pragma once

#include "core/state/state.h"

#include <cstddef>

// The ids that something counts. 3, 4, 7, 12, 17 and 19 exist and stay 0.
enum stats_id : uint8_t {
    STATS_RECEIVED = 1,
    STATS_ETHERNET = 2,
    STATS_UNKNOWN_ETHER_TYPE = 5,
    STATS_IPV4 = 6,
    STATS_IPV4_FRAGMENT = 8,
    STATS_TCP = 9,
    STATS_UDP = 11,
    STATS_ICMP = 13,
    STATS_IGMP = 14,
    STATS_OTHER_IP_PROTOCOL = 15,
    STATS_ARP = 16,
    STATS_HTTP_RESPONSE = 18,
    STATS_OUTPUT = 19,
    STATS_DENIED = 20,
};

// Adds one to a counter. Id 10 and ids outside 1 to 20 change nothing.
inline void jorn_stats_inc(unsigned id) {
    constexpr unsigned highest = sizeof(packet_stats::count) / sizeof(uint64_t) - 1;
    if (id >= 1 && id <= highest && id != 10)
        ++jorn_state.stats.count[id];
}

// Writes the totals to the log at debug level.
void jorn_print_stats();
