#include "avwatch/views/usage.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <unordered_map>

namespace avwatch {
namespace {

using std::chrono::steady_clock;

struct seen_bytes {
    uint64_t up = 0;
    uint64_t down = 0;
};

template <typename Record>
void add_to(usage &sum, const Record &record) {
    sum.up.packets += record.up.packets;
    sum.up.bytes += record.up.bytes;
    sum.down.packets += record.down.packets;
    sum.down.bytes += record.down.bytes;
    sum.dropped.denied += record.dropped.denied;
    sum.dropped.limited += record.dropped.limited;
    sum.last_us = std::max(sum.last_us, record.last_us);
}

// Bytes until they are divided. Counts of clients fall with the flows that leave the table.
void add_growth(usage &sum, const traffic &up, const traffic &down, const seen_bytes &before) {
    sum.up_rate += static_cast<double>(up.bytes - std::min(up.bytes, before.up));
    sum.down_rate += static_cast<double>(down.bytes - std::min(down.bytes, before.down));
}

void divide_rates(usages &all, steady_clock::time_point began) {
    const std::chrono::duration<double> apart = steady_clock::now() - began;
    for (auto &[key, used] : all) {
        used.up_rate /= apart.count();
        used.down_rate /= apart.count();
    }
}

uint64_t whole(double rate) {
    constexpr double most = 1e18;
    return static_cast<uint64_t>(std::clamp(rate, 0.0, most));
}

} // namespace

usages usages_of_flows(conversation &talk,
                       const std::function<std::string(const flow_record &)> &key_of) {
    std::unordered_map<std::string, seen_bytes> before;
    talk.ask_flows([&](const flow_record &flow) {
        before[flow.id] = {flow.up.bytes, flow.down.bytes};
    });
    const auto began = steady_clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(LOOKS_APART_SECONDS));
    usages all;
    talk.ask_flows([&](const flow_record &flow) {
        usage &sum = all[key_of(flow)];
        ++sum.flows;
        add_to(sum, flow);
        const auto seen = before.find(flow.id);
        add_growth(sum, flow.up, flow.down, seen != before.end() ? seen->second : seen_bytes());
    });
    divide_rates(all, began);
    return all;
}

usages usages_of_clients(watch_client &avcore, const known_clients &before) {
    std::unordered_map<std::string, seen_bytes> seen;
    for (const known_client &each : before.all())
        seen[each.key] = {each.said.up.bytes, each.said.down.bytes};
    const auto began = steady_clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(LOOKS_APART_SECONDS));
    usages all;
    const known_clients now({}, ask_clients(avcore));
    for (const known_client &each : now.all()) {
        usage &sum = all[each.key];
        sum.flows = each.said.flows;
        add_to(sum, each.said);
        // A key that is new is a new client's, or an old one's whose MAC address is known now.
        if (const auto was = seen.find(each.key); was != seen.end())
            add_growth(sum, each.said.up, each.said.down, was->second);
    }
    divide_rates(all, began);
    return all;
}

std::vector<std::string> by_bytes(const usages &all) {
    std::vector<std::pair<uint64_t, std::string>> sorted;
    for (const auto &[key, used] : all)
        sorted.emplace_back(used.up.bytes + used.down.bytes, key);
    std::ranges::stable_sort(sorted, std::greater(), &std::pair<uint64_t, std::string>::first);
    std::vector<std::string> keys;
    keys.reserve(sorted.size());
    for (auto &[bytes, key] : sorted)
        keys.push_back(std::move(key));
    return keys;
}

void put_usage(nlohmann::ordered_json &object, const usage &used) {
    object["flows"] = used.flows;
    object["up"] = {used.up.packets, used.up.bytes};
    object["down"] = {used.down.packets, used.down.bytes};
    object["dropped"] = {used.dropped.denied, used.dropped.limited};
    object["last_us"] = used.last_us;
    object["up_rate"] = whole(used.up_rate);
    object["down_rate"] = whole(used.down_rate);
}

} // namespace avwatch
