#include "avwatch/export/due_flows.h"

#include "avcore/base/ip_address.h"
#include "avwatch/base/addresses.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <iterator>
#include <string_view>
#include <utility>

namespace avwatch {
namespace {

constexpr size_t PARTS_MAX = 2 * due_flows::WAITING_MAX;
constexpr int64_t HEARD_EVERY_MS = 10'000; // at least
constexpr int64_t US_IN_MS = 1'000;
constexpr int64_t CLOCK_WAS_SET_US = 1'000'000;
constexpr char BY_ENGINE[] = "dpi";
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
    const size_t name_end = why.text.rfind(behind_name);
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

uint32_t every_ms_of(const std::vector<due_flows::view> &views) {
    int64_t every_ms = HEARD_EVERY_MS;
    for (const due_flows::view &each : views)
        every_ms = std::min({every_ms, each.active_ms, each.inactive_ms / 2});
    return static_cast<uint32_t>(every_ms);
}

uint64_t moved(uint64_t time_us, int64_t by_us) {
    if (by_us >= 0)
        return std::min<uint64_t>(time_us + static_cast<uint64_t>(by_us), INT64_MAX);
    return time_us - std::min(time_us, uint64_t{0} - static_cast<uint64_t>(by_us));
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
    : views_(std::move(views)),
      heard_every_ms_(every_ms_of(views_)),
      names_(std::move(names)),
      waiting_(views_.size()),
      left_out_there_(views_.size()) {}

void due_flows::set_clock(int64_t ahead_us) {
    const int64_t by_us = ahead_us - ahead_us_.value_or(ahead_us);
    if (ahead_us_ && std::abs(by_us) < CLOCK_WAS_SET_US)
        return;
    ahead_us_ = ahead_us;
    if (by_us == 0)
        return;
    const auto set = [&](open_flow &flow) {
        flow.last_us = moved(flow.last_us, by_us);
        for (share &part : flow.shares)
            part.begun_us = moved(part.begun_us, by_us);
    };
    std::ranges::for_each(parts_, set);
    for (auto &[id, flow] : flows_)
        set(flow);
}

void due_flows::connected(const std::string &epoch, int64_t heard_ms) {
    heard_ms_ = heard_ms;
    if (epoch_ == epoch)
        return;
    epoch_ = epoch;
    for (auto &[id, flow] : flows_) {
        if (flow.end_reason == 0)
            flow.end_reason = END_FORCED;
    }
}

void due_flows::take(const flow_record &told, const ledger::growth &more, int64_t now_ms,
                     const application_name &known) {
    auto at = flows_.find(told.id);
    if (at == flows_.end() && flows_.size() >= FLOWS_MAX) {
        ++left_out_;
        return;
    }
    if (at == flows_.end())
        at = flows_.emplace(told.id, begun(told, more, now_ms)).first;
    open_flow &flow = at->second;
    name(flow, told, known, now_ms);
    describe(flow, told);
    grow(flow, told, more, now_ms);
}

void due_flows::take(const count_record &told, const ledger::growth &more, int64_t now_ms) {
    const auto at = flows_.find(told.id);
    if (at != flows_.end())
        grow(at->second, told, more, now_ms);
    else
        ++left_out_;
}

void due_flows::take(const sum_record &told, int64_t now_ms) {
    if (parts_.size() >= PARTS_MAX) {
        ++left_out_;
        return;
    }
    open_flow &flow = parts_.emplace_back();
    flow.facts.station = mac_address_in(told.client_mac);
    set_side(flow.facts, told.client, flow.facts.client);
    flow.facts.is_denied = told.verdict == DENIED;
    flow.last_us = wall_us(now_ms);
    flow.end_reason = END_NO_ROOM;
    share begun;
    begun.counts = counts_in(told);
    begun.begun_us = flow.last_us;
    const application_name name = classify(told.application, {});
    for (size_t i = 0; i < views_.size(); ++i) {
        begun.application = names_.application(i, name, 0);
        flow.shares.push_back(begun);
    }
}

uint64_t due_flows::wall_us(int64_t at_ms) const {
    return moved(static_cast<uint64_t>(at_ms * US_IN_MS), ahead_us_.value_or(0));
}

// When the last packet passed; a file's frames have times of their own.
int64_t due_flows::passed_ms(const count_record &told, int64_t now_ms) const {
    const int64_t before_ms = static_cast<int64_t>(wall_us(now_ms) - told.last_us) / US_IN_MS;
    return before_ms >= 0 && before_ms <= 2 * HEARD_EVERY_MS ? now_ms - before_ms : now_ms;
}

due_flows::open_flow due_flows::begun(const flow_record &told, const ledger::growth &more,
                                      int64_t now_ms) const {
    share part;
    part.begun_us = told.begun_us;
    part.begun_ms = now_ms;
    part.is_told = more.counts != counts_in(told);
    if (part.is_told && heard_ms_ >= 0)
        part.begun_us = std::max(told.begun_us, std::min(wall_us(heard_ms_), told.last_us));
    open_flow flow;
    flow.shares.assign(views_.size(), part);
    flow.last_us = told.last_us;
    flow.grown_ms = now_ms;
    flow.named_ms = more.named_ms;
    return flow;
}

// What isn't said stays: after a restart avcore may know no more of a flow than its counts.
void due_flows::name(open_flow &flow, const flow_record &told, const application_name &known,
                     int64_t now_ms) {
    if (told.application.empty() && flow.shares.front().application.number != 0)
        return;
    const application_name called =
        told.application.empty() ? known : classify(told.application, told.why.named_by);
    const uint64_t engine_number = told.why.named_by == BY_ENGINE ? told.why.app_id : 0;
    for (size_t i = 0; i < views_.size(); ++i) {
        share &part = flow.shares[i];
        const application_id now = names_.application(i, called, engine_number);
        if (now != part.application && now_ms >= flow.named_ms && has_any(part.counts))
            close_part(flow, part, now_ms);
        part.application = now;
    }
}

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
}

void due_flows::grow(open_flow &flow, const count_record &told, const ledger::growth &more,
                     int64_t now_ms) {
    const bool was_over = flow.end_reason != 0;
    flow.heard_ms = now_ms;
    flow.last_us = told.last_us;
    flow.end_reason = end_reason_of(told.ended);
    ended_ += !was_over && flow.end_reason != 0 ? 1 : 0;
    if (!has_any(more.counts))
        return;
    const int64_t grown_ms = passed_ms(told, now_ms);
    const int64_t silent_ms = grown_ms - std::exchange(flow.grown_ms, grown_ms);
    for (size_t place = 0; place < views_.size(); ++place) {
        share &part = flow.shares[place];
        // What passes first is no older than what would have been heard of before.
        if (!has_any(part.counts) && silent_ms >= views_[place].inactive_ms) {
            part.begun_ms = grown_ms;
            part.begun_us =
                std::max(part.begun_us, moved(told.last_us, -US_IN_MS * heard_every_ms_));
        }
        for (size_t i = 0; i < FLOW_COUNTS; ++i)
            part.counts[i] += more.counts[i];
    }
}

void due_flows::give(int64_t now_ms, bool all, const taker &to) {
    ended_ = 0;
    std::ranges::fill(waiting_, 0);
    size_t left = 0; // of the parts, whose order doesn't matter
    for (open_flow &part : parts_) {
        if (!give_all(part, now_ms, all, to))
            std::swap(parts_[left++], part);
    }
    parts_.resize(left);
    for (auto at = flows_.begin(); at != flows_.end();) {
        open_flow &flow = at->second;
        if (flow.end_reason == 0 && now_ms - flow.heard_ms >= SILENT_MS)
            flow.end_reason = END_INACTIVE;
        at = give_all(flow, now_ms, all, to) ? flows_.erase(at) : std::next(at);
    }
}

// Whether it is over, and nothing is left of it.
bool due_flows::give_all(open_flow &flow, int64_t now_ms, bool all, const taker &to) {
    bool is_given = true;
    for (size_t place = 0; place < views_.size(); ++place)
        is_given &= give_share(flow, place, now_ms, all, to);
    return is_given && flow.end_reason != 0;
}

// 0: nothing is due.
uint8_t due_flows::due_reason(const open_flow &flow, const share &part, const view &of,
                              int64_t now_ms, bool all) {
    if (flow.end_reason != 0)
        return flow.end_reason;
    if (all)
        return END_FORCED;
    if (now_ms - part.begun_ms >= of.active_ms)
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
    const bool is_last = flow.end_reason != 0 && flow.end_reason != END_ACTIVE_TIMEOUT;
    // The clock may have been set back between two messages.
    const uint64_t begun_us = std::min(part.begun_us, flow.last_us);
    const bool is_taken = to(place, {flow.facts, part.application, part.counts, begun_us,
                                     flow.last_us, reason, !part.is_told, is_last});
    if (!is_taken && (flow.end_reason == 0 || waiting_[place] < WAITING_MAX / views_.size())) {
        waiting_[place] += flow.end_reason != 0 ? 1 : 0;
        return false;
    }
    left_out_there_[place] += is_taken ? 0 : 1;
    part.counts = {};
    part.begun_us = flow.last_us;
    part.begun_ms = now_ms;
    part.is_told = true;
    return true;
}

// What it has is told under the name that it has.
void due_flows::close_part(const open_flow &flow, share &part, int64_t now_ms) {
    if (parts_.size() >= PARTS_MAX)
        return;
    open_flow &closed = parts_.emplace_back();
    closed.facts = flow.facts;
    closed.last_us = flow.last_us;
    closed.end_reason = END_ACTIVE_TIMEOUT;
    closed.shares.resize(views_.size());
    closed.shares[static_cast<size_t>(&part - flow.shares.data())] = part;
    part.counts = {};
    part.begun_us = flow.last_us;
    part.begun_ms = now_ms;
    part.is_told = true;
}

} // namespace avwatch
