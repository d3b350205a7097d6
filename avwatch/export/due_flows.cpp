#include "avwatch/export/due_flows.h"

#include "avcore/base/ip_address.h"
#include "avwatch/base/addresses.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <string_view>
#include <utility>

namespace avwatch {
namespace {

constexpr size_t SUMS_MAX = 16'384;
constexpr size_t REASON_MAX = 128;

uint16_t port_of(uint64_t told) {
    return static_cast<uint16_t>(std::min<uint64_t>(told, UINT16_MAX));
}

uint8_t dscp_of(uint64_t told) {
    return static_cast<uint8_t>(told & 63);
}

// As avcore calls them; another one of IP's is "IP" and its number, and what isn't IP's has none.
uint8_t protocol_of(std::string_view told) {
    constexpr std::pair<std::string_view, uint8_t> names[] = {
        {"ICMP", 1}, {"IGMP", 2}, {"TCP", 6},     {"UDP", 17},
        {"GRE", 47}, {"ESP", 50}, {"ICMPv6", 58}, {"SCTP", 132},
    };
    for (const auto &[name, number] : names) {
        if (name == told)
            return number;
    }
    constexpr std::string_view other = "IP ";
    uint8_t number = 0;
    if (told.starts_with(other))
        std::from_chars(told.data() + other.size(), told.data() + told.size(), number);
    return number;
}

uint8_t end_reason_of(std::string_view ended) {
    constexpr std::pair<std::string_view, uint8_t> words[] = {{"", 0},
                                                              {"fin", END_DETECTED},
                                                              {"reset", END_DETECTED},
                                                              {"idle", END_INACTIVE},
                                                              {"forgotten", END_NO_ROOM}};
    const auto *found =
        std::ranges::find(words, ended, &std::pair<std::string_view, uint8_t>::first);
    return found != std::end(words) ? found->second : uint8_t{END_FORCED};
}

bool has_any(const flow_counts &counts) {
    return std::ranges::any_of(counts, [](uint64_t count) { return count != 0; });
}

// Names are each view's own matter, and avcore's words begin with one.
std::string reason_of(const why_record &why) {
    constexpr std::string_view behind_name = ", named by ";
    const size_t name_end = why.text.find(behind_name);
    std::string reason = why.reason;
    if (reason.empty() && name_end != std::string::npos)
        reason = why.text.substr(name_end + 2);
    return reason.substr(0, REASON_MAX);
}

void set_side(exported_flow &facts, const std::string &text, exported_record::address &address) {
    const auto parsed = avcore::ip_address::parse(text);
    facts.is_ip = parsed.has_value();
    if (!parsed)
        return;
    address = parsed->octets();
    facts.is_ipv6 = !parsed->is_ipv4();
}

} // namespace

exported_record::mac_address mac_address_in(const std::string &text) {
    constexpr int HEX = 16;
    exported_record::mac_address mac = {};
    if (!canonical_mac(text))
        return mac;
    const char *at = text.data(); // two digits and a colon each
    for (uint8_t &octet : mac) {
        std::from_chars(at, at + 2, octet, HEX);
        at += 3;
    }
    return mac;
}

due_flows::due_flows(std::vector<view> views, namer names)
    : views_(std::move(views)), names_(std::move(names)) {}

void due_flows::connected(const std::string &epoch) {
    if (epoch_ == epoch)
        return;
    epoch_ = epoch;
    for (auto &[id, flow] : flows_) {
        if (flow.end_reason == 0)
            flow.end_reason = END_FORCED;
    }
}

void due_flows::take(const flow_record &told, const flow_counts &more, int64_t now_ms) {
    if (flows_.size() >= FLOWS_MAX && !flows_.contains(told.id)) {
        ++left_out_;
        return;
    }
    const auto [at, is_new] = flows_.try_emplace(told.id);
    open_flow &flow = at->second;
    if (is_new) {
        share begun;
        begun.begun_us = told.begun_us;
        begun.told_ms = now_ms;
        begun.is_told = more != counts_in(told); // by an earlier run
        flow.shares.assign(views_.size(), begun);
        flow.grown_ms = now_ms;
    }
    describe(flow, told);
    grow(flow, told, more, now_ms);
}

void due_flows::take(const count_record &told, const flow_counts &more, int64_t now_ms) {
    const auto at = flows_.find(told.id);
    if (at != flows_.end())
        grow(at->second, told, more, now_ms);
    else
        ++left_out_;
}

void due_flows::take(const sum_record &told, uint64_t now_us) {
    if (sums_.size() >= SUMS_MAX) {
        ++left_out_;
        return;
    }
    open_flow &flow = sums_.emplace_back();
    flow.facts.station = mac_address_in(told.client_mac);
    set_side(flow.facts, told.client, flow.facts.client);
    flow.facts.is_denied = told.verdict == DENIED;
    flow.last_us = now_us;
    flow.end_reason = END_NO_ROOM;
    share begun;
    begun.counts = counts_in(told);
    begun.begun_us = now_us;
    for (size_t i = 0; i < views_.size(); ++i) {
        begun.application = names_.application(i, told.application, {});
        flow.shares.push_back(begun);
    }
}

// What isn't said stays: after a restart avcore may know no more of a flow than its counts.
void due_flows::describe(open_flow &flow, const flow_record &told) {
    exported_flow &facts = flow.facts;
    set_side(facts, told.server, facts.server);
    set_side(facts, told.client, facts.client);
    facts.client_port = port_of(told.client_port);
    facts.server_port = port_of(told.server_port);
    facts.protocol = protocol_of(told.protocol);
    facts.dscp_up = dscp_of(told.dscp.up);
    facts.dscp_down = dscp_of(told.dscp.down);
    if (!told.client_mac.empty() || !facts.is_ip)
        facts.station = mac_address_in(told.client_mac.empty() ? told.client : told.client_mac);
    if (!told.interface.empty())
        facts.interface = names_.interface(told.interface);
    facts.utp = static_cast<uint32_t>(std::min<uint64_t>(told.utp, UINT32_MAX));
    facts.is_denied = told.verdict == DENIED;
    facts.reason = facts.is_denied ? reason_of(told.why) : std::string();
    for (size_t i = 0; i < views_.size(); ++i) {
        share &part = flow.shares[i];
        if (!told.application.empty() || part.application.number == 0)
            part.application = names_.application(i, told.application, told.why);
    }
}

void due_flows::grow(open_flow &flow, const count_record &told, const flow_counts &more,
                     int64_t now_ms) {
    flow.heard_ms = now_ms;
    flow.last_us = told.last_us;
    flow.end_reason = end_reason_of(told.ended);
    if (!has_any(more))
        return;
    flow.grown_ms = now_ms;
    for (share &part : flow.shares) {
        for (size_t i = 0; i < FLOW_COUNTS; ++i)
            part.counts[i] += more[i];
    }
}

void due_flows::give(int64_t now_ms, bool all, const taker &to) {
    const auto is_done = [&](open_flow &flow) {
        bool is_given = true;
        for (size_t i = 0; i < views_.size(); ++i)
            is_given &= give_share(flow, i, now_ms, all, to);
        return is_given && flow.end_reason != 0;
    };
    size_t left = 0; // of the sums, whose order doesn't matter
    for (open_flow &sum : sums_) {
        if (!is_done(sum))
            std::swap(sums_[left++], sum);
    }
    sums_.resize(left);
    for (auto at = flows_.begin(); at != flows_.end();) {
        open_flow &flow = at->second;
        if (flow.end_reason == 0 && now_ms - flow.heard_ms >= SILENT_MS)
            flow.end_reason = END_INACTIVE;
        at = is_done(flow) ? flows_.erase(at) : std::next(at);
    }
}

// 0: nothing is due.
uint8_t due_flows::due_reason(const open_flow &flow, const share &part, const view &of,
                              int64_t now_ms, bool all) const {
    if (flow.end_reason != 0)
        return flow.end_reason;
    if (all)
        return END_FORCED;
    if (now_ms - part.told_ms >= of.active_ms)
        return END_ACTIVE_TIMEOUT;
    return now_ms - flow.grown_ms >= of.inactive_ms ? uint8_t{END_INACTIVE} : uint8_t{0};
}

// Whether nothing more is due there.
bool due_flows::give_share(open_flow &flow, size_t place, int64_t now_ms, bool all,
                           const taker &to) {
    share &part = flow.shares[place];
    if (!has_any(part.counts))
        return true;
    const uint8_t reason = due_reason(flow, part, views_[place], now_ms, all);
    if (reason == 0)
        return true;
    // The clock may have been set back since.
    const uint64_t begun_us = std::min(part.begun_us, flow.last_us);
    if (!to(place, {flow.facts, part.application, part.counts, begun_us, flow.last_us, reason,
                    !part.is_told, flow.end_reason != 0}))
        return false;
    part.counts = {};
    part.begun_us = flow.last_us;
    part.told_ms = now_ms;
    part.is_told = true;
    return true;
}

} // namespace avwatch
