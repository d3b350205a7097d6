#include "avcore/watch/follower.h"

#include "avcore/base/monotonic_clock.h"
#include "avcore/flows/flow_text.h"
#include "avcore/watch/json_text.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace avcore {
namespace {

constexpr int64_t ROUND_MS = 1'000;       // at least, between the beginnings of two
constexpr int64_t BUSY_ROUND_MS = 10'000; // while it has more than it takes
constexpr int NEWS_A_TURN = 64;
constexpr uint32_t NEW_PLACES_A_TURN = 4'096;
constexpr uint32_t TOLD_PIECE = 512;

// The beginning of a message about something; behind it comes what it is about, then "}\n".
void begin_message(std::string &out, uint32_t id, const char *what) {
    out += "{\"id\":" + std::to_string(id) + ",\"" + what + "\":";
}

sum_key key_of(const flow_row &row) {
    const std::string client = is_known(row.client.mac) ? "" : address_text(row, row.client);
    return {row.client.mac, client, name_of(row), row.verdict};
}

} // namespace

follower::follower(watched_flows &flows, const gate *behind, outgoing_lines &out,
                   const follow_wish &wish)
    : flows_(flows),
      behind_(behind),
      out_(out),
      wish_(wish),
      since_(flows.last_change()),
      ends_from_us_(wish.ended_within_ms ? flows.now_us() - *wish.ended_within_ms * 1'000
                                         : INT64_MAX),
      end_(since_),
      first_round_(flows.want_round()) {
    flows_.add(*this);
}

follower::~follower() {
    flows_.remove(*this);
}

follower::told_values &follower::told_at(uint32_t place) {
    if (place >= told_.size())
        told_.resize(std::min(place + TOLD_PIECE, flows_.places()));
    return told_[place];
}

// Before this began.
bool follower::was_over(const watched_flow &flow) const {
    return flow.is_over() && (flow.is_asked || (flow.ended <= since_ && !flow.is_for_all()));
}

// That, and it isn't wanted nevertheless.
bool follower::is_past(const watched_flow &flow) const {
    return was_over(flow) && ends_us(flow.seen) < ends_from_us_;
}

int64_t follower::ends_from_us() const {
    return flows_.is_done(first_round_) ? INT64_MAX : ends_from_us_;
}

bool follower::has_end(uint32_t place) const {
    return !wish_.flows || (place < told_.size() && told_[place].change == END) ||
           is_past(flows_.at(place));
}

void follower::leave(uint32_t place) {
    if (place < told_.size())
        told_[place] = {};
}

void follower::sum_up(uint32_t place) {
    if (!wish_.flows)
        return;
    const watched_flow &flow = flows_.at(place);
    told_values &told = told_at(place);
    const bool has_all = std::exchange(told.change, END) == END;
    // An end that is told again can't be known again in a sum.
    if (has_all || (!told.is_any && (was_over(flow) || !wish_.filter.fits(flow))))
        return;
    sum_key key = key_of(flow.known());
    if (sums_.size() >= MAX_SUMS && !sums_.contains(key))
        key = {};
    sum_of_flows &sum = sums_[key];
    sum.flows += told.is_any ? 0 : 1;
    sum.counts = sum.counts + (flow.counts - told.counts);
    if (sum.flows == 0 && sum.counts == gate_counter()) // it says nothing
        sums_.erase(key);
}

int64_t follower::due_ms(int64_t now_ms) const {
    if (!wish_.flows || !flows_.is_done(first_round_))
        return NEVER_MS;
    if (in_pass_ || flows_.ended_behind(end_))
        return now_ms;
    return awaits_round() ? NEVER_MS : pass_due_ms_;
}

// Where nothing has to be told at once a pass goes through the table right behind a round: what
// that has looked at is at hand, in the processor's caches, and far away a moment later.
bool follower::awaits_round() const {
    return !wish_.events && !hurries_ && flows_.counted_round() == passed_round_;
}

int64_t follower::round_due_ms(int64_t last_ms) const {
    const int64_t soonest_ms = last_ms + ROUND_MS;
    if (!out_.has_room() || (in_pass_ && !wish_.events))
        return last_ms + std::max(BUSY_ROUND_MS, 2 * wish_.every_ms);
    return wish_.events ? soonest_ms : std::max(pass_due_ms_, soonest_ms);
}

void follower::add_some(int64_t now_ms) {
    if (now_ms < due_ms(now_ms))
        return;
    int messages = 0;
    while (messages < NEWS_A_TURN && out_.has_room() && (add_sum() || add_end()))
        ++messages;
    if (!in_pass_ && (now_ms < pass_due_ms_ || awaits_round()))
        return;
    if (!std::exchange(in_pass_, true)) {
        next_ = 0;
        until_ = flows_.places();
        passed_change_ = flows_.last_change();
        passed_round_ = flows_.counted_round();
    }
    const uint32_t ready = wish_.events ? until_ : std::min(until_, flows_.looked_through());
    const uint32_t last = std::min(ready, next_ + NEW_PLACES_A_TURN);
    while (messages < NEWS_A_TURN && out_.has_room() && next_ < last)
        messages += add_flow(next_++);
    if (next_ == until_ && sums_.empty())
        end_pass(now_ms);
}

void follower::end_pass(int64_t now_ms) {
    in_pass_ = false;
    pass_due_ms_ = now_ms + (!wish_.brief ? wish_.every_ms
                                          : std::max(wish_.every_ms, flows_.spared_round_ms()));
    if (std::exchange(listed_, true))
        return;
    begin_message(out_.made(), wish_.id, "listed");
    out_.made() += "true}\n";
}

bool follower::add_sum() {
    const auto first = sums_.begin();
    if (first == sums_.end())
        return false;
    begin_message(out_.made(), wish_.id, "sum");
    append_sum(out_.made(), first->first, first->second);
    out_.made() += "}\n";
    sums_.erase(first);
    return true;
}

bool follower::add_end() {
    const std::optional<uint32_t> place = flows_.ended_behind(end_);
    if (!place)
        return false;
    end_ = flows_.at(*place).ended;
    add_flow(*place);
    return true;
}

bool follower::add_flow(uint32_t place) {
    const watched_flow &flow = flows_.at(place);
    const uint64_t change = flows_.change_at(place);
    told_values &told = told_at(place);
    if (change <= told.change || !flow.can_be_told())
        return false;
    const uint64_t told_change = std::exchange(told.change, flow.is_over() ? END : change);
    if (!told.is_any && (is_past(flow) || !wish_.filter.fits(flow)))
        return false;
    std::string &text = out_.made();
    const bool whole = !told.is_any || flow.essence > told_change;
    begin_message(text, wish_.id, !whole ? "count" : wish_.brief ? "brief" : "flow");
    if (!whole)
        append_count(text, flow);
    else if (wish_.brief)
        append_brief(text, flow);
    else
        append_flow(text, flow, behind_);
    text += "}\n";
    told.is_any = true;
    told.counts = flow.counts;
    return true;
}

void follower::happened(flow_event what, uint32_t place) {
    const watched_flow &flow = flows_.at(place);
    if (!wish_.events || !wish_.filter.fits(flow))
        return;
    if (out_.loses_events()) { // what a silent reader can't have isn't made
        out_.lose_event(wish_.id);
        return;
    }
    std::string members = ",\"flow\":";
    append_flow(members, flow, behind_);
    tell(word_of(what), flows_.now_us(), members);
}

void follower::tell(std::string_view what, int64_t now_us, std::string_view members) {
    if (!wish_.events)
        return;
    std::string event;
    begin_message(event, wish_.id, "event");
    event += "{\"what\":\"";
    event += what;
    event += "\",\"us\":" + std::to_string(now_us);
    event += members;
    event += "}}\n";
    out_.add_event(wish_.id, std::move(event));
}

void follower::hurry() {
    hurries_ = true;
    wish_.every_ms = 0;
    pass_due_ms_ = 0;
    first_round_ = 0;
}

bool follower::has_all() const {
    return !wish_.flows || (!in_pass_ && passed_change_ >= flows_.last_change());
}

} // namespace avcore
