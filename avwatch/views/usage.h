// Sums over flows, and how fast they grow.
//
// The rates come of two looks at avcore's table: what has come between them by the time between
// them. A flow that ended in between may be missing in a rate.
#pragma once

#include "avwatch/views/selection.h"

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace avwatch {

inline constexpr int LOOKS_APART_SECONDS = 2;

struct usage {
    uint64_t flows = 0;
    traffic up, down;
    dropped_packets dropped;
    uint64_t last_us = 0;
    double up_rate = 0, down_rate = 0; // bytes a second
};

using usages = std::map<std::string, usage>;

// Of the flows selected, as they are shown, by what each is counted for.
usages usages_of_flows(conversation &talk,
                       const std::function<std::string(const flow_record &)> &key_of);
// Of all clients, by their keys. The first look is there.
usages usages_of_clients(watch_client &avcore, const known_clients &before);

// The keys, those with the most bytes first.
std::vector<std::string> by_bytes(const usages &all);

// The sums among an object's members.
void put_usage(nlohmann::ordered_json &object, const usage &used);

} // namespace avwatch
