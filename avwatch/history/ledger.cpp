#include "avwatch/history/ledger.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace avwatch {
namespace {

constexpr char UNKNOWN_CLIENT[] = "unknown";
// Longer than avcore takes to tell of an end; less than ended ones are known again.
constexpr int64_t ENDS_LATE_MS = 40'000;

std::string client_of(const flow_message &news) {
    std::string_view client = news.client_mac.empty() ? news.client : news.client_mac;
    client = client.substr(0, NAME_MAX_BYTES);
    return client.empty() ? UNKNOWN_CLIENT : std::string(client);
}

amounts amounts_of(const flow_counts &counts) {
    amounts result = {};
    std::copy(counts.begin(), counts.end(), result.begin());
    return result;
}

} // namespace

uint64_t flow_number(std::string_view id) {
    return std::hash<std::string_view>()(id);
}

void ledger::restore(uint64_t number, sum_key key, open_flow flow, int64_t now_ms) {
    flow.key = share(std::move(key));
    flow.stored = true;
    flow.since_ms = flow.heard_ms = now_ms;
    flows_.insert_or_assign(number, flow);
}

void ledger::connected(std::string_view epoch) {
    if (epoch_ == epoch)
        return;
    epoch_ = epoch;
    ended_.clear();
    for (auto at = flows_.begin(); at != flows_.end();)
        at = close(at);
}

// What wasn't heard of while nobody spoke may still be there.
void ledger::listed(int64_t now_ms) {
    listed_ms_ = now_ms;
    heard(now_ms);
}

void ledger::heard(int64_t now_ms) {
    if (listed_ms_ >= 0)
        heard_ms_ = now_ms;
}

std::optional<int64_t> ledger::ends_to_ask_for_ms(int64_t now_ms) const {
    if (heard_ms_ < 0)
        return std::nullopt;
    return heard_ms_ > now_ms ? now_ms : std::min(now_ms - heard_ms_ + ENDS_LATE_MS, now_ms);
}

std::optional<ledger::growth> ledger::take(const flow_message &news, int64_t now_ms) {
    const auto at = enter(news, now_ms);
    if (at == flows_.end())
        return std::nullopt;
    if (is_to_be_released(at->second, now_ms)) { // what it had so far is the former name's
        release(at->second);
        note_changed(at);
    }
    if (rename(at->second, news))
        note_changed(at);
    return take(at, news.counts, news.ended, now_ms);
}

std::optional<ledger::growth> ledger::take_counts(std::string_view id, const flow_counts &counts,
                                                  bool ended, int64_t now_ms) {
    const auto at = flows_.find(flow_number(id));
    if (at == flows_.end())
        return std::nullopt;
    return take(at, counts, ended, now_ms);
}

ledger::growth ledger::take(flow_map::iterator at, const flow_counts &counts, bool ended,
                            int64_t now_ms) {
    growth more;
    more.named_ms = at->second.held ? at->second.since_ms + HELD_MS : now_ms;
    more.counts = update(at, counts, now_ms, ended);
    if (!ended)
        return more;
    ended_.add(at->first, now_ms);
    close(at);
    return more;
}

void ledger::take_sum(const flow_message &sum, uint64_t flows) {
    amounts more = amounts_of(sum.counts);
    more[FLOWS] = flows;
    more[DENIALS] = sum.verdict == DENY ? flows : 0;
    count({client_of(sum), reduced(classify(sum.application, sum.named_by), kept_), sum.verdict},
          more);
}

void ledger::pass(int64_t now_ms) {
    for (auto at = flows_.begin(); at != flows_.end();) {
        open_flow &flow = at->second;
        if (listed_ms_ >= 0 && now_ms - std::max(flow.heard_ms, listed_ms_) >= SILENT_MS) {
            at = close(at);
            continue;
        }
        if (is_to_be_released(flow, now_ms)) {
            release(flow);
            note_changed(at);
        }
        ++at;
    }
}

void ledger::release_all() {
    for (auto at = flows_.begin(); at != flows_.end(); ++at) {
        if (!at->second.held)
            continue;
        release(at->second);
        note_changed(at);
    }
}

const application_name *ledger::name_of(std::string_view id) const {
    const auto found = flows_.find(flow_number(id));
    return found != flows_.end() ? &found->second.key->application : nullptr;
}

void ledger::written() {
    pending_.clear();
    for (const flow_map::pointer each : changed_) {
        if (each == nullptr)
            continue;
        each->second.changed_at = open_flow::UNCHANGED;
        each->second.stored = true;
    }
    changed_.clear();
    removed_.clear();
    ended_.written();
}

void ledger::forget_rows() {
    ended_.forget_rows();
    removed_.clear();
    changed_.clear();
    for (auto at = flows_.begin(); at != flows_.end(); ++at) {
        at->second.stored = false;
        at->second.changed_at = open_flow::UNCHANGED;
        note_changed(at);
    }
}

// The flow's place, a new one where there is room.
ledger::flow_map::iterator ledger::enter(const flow_message &news, int64_t now_ms) {
    const uint64_t number = flow_number(news.id);
    auto at = flows_.find(number);
    if (at != flows_.end())
        return at;
    if (news.ended && ended_.has(number)) // told again
        return flows_.end();
    if (flows_.size() >= MAX_FLOWS) {
        ++uncounted_;
        return flows_.end();
    }
    at = flows_.emplace(number, open_flow()).first;
    sum_key key;
    key.client = client_of(news);
    at->second.key = share(std::move(key));
    at->second.has_mac = !news.client_mac.empty();
    at->second.since_ms = now_ms;
    note_changed(at);
    return at;
}

// What isn't said stays: after a restart avcore may know no more of a flow than its counts.
bool ledger::rename(open_flow &flow, const flow_message &news) {
    const sum_key *before = flow.key;
    sum_key next = *before;
    if (!flow.has_mac && !news.client_mac.empty()) {
        next.client = client_of(news);
        flow.has_mac = true;
    }
    if (!news.application.empty())
        next.application = reduced(classify(news.application, news.named_by), kept_);
    if (news.verdict != NO_VERDICT)
        next.verdict = news.verdict;
    if (next == *before)
        return false;
    flow.key = share(std::move(next));
    if (flow.key == before) { // no room for another name
        give_up(before);
        return false;
    }
    if (flow.key->verdict == DENY && before->verdict != DENY && !flow.held) {
        amounts denial = {};
        denial[DENIALS] = 1;
        count(*flow.key, denial);
    }
    give_up(before);
    return true;
}

// Who makes names up pays with "other".
const sum_key *ledger::share(sum_key key) {
    auto at = keys_.find(key);
    if (at == keys_.end() && !has_room_for_name(key.client)) {
        key.application = {OTHER, false};
        at = keys_.find(key);
    }
    if (at == keys_.end()) {
        ++client_keys_[key.client];
        at = keys_.try_emplace(std::move(key)).first;
    }
    ++at->second;
    return &at->first;
}

bool ledger::has_room_for_name(const std::string &client) const {
    const auto found = client_keys_.find(client);
    return keys_.size() < MAX_KEYS &&
           (found == client_keys_.end() || found->second < MAX_CLIENT_KEYS);
}

void ledger::give_up(const sum_key *key) {
    const auto at = keys_.find(*key);
    if (--at->second != 0)
        return;
    const auto client = client_keys_.find(key->client);
    if (--client->second == 0)
        client_keys_.erase(client);
    keys_.erase(at);
}

flow_counts ledger::update(flow_map::iterator at, const flow_counts &counts, int64_t now_ms,
                           bool is_last) {
    open_flow &flow = at->second;
    flow.heard_ms = now_ms;
    flow_counts more = {};
    if (!is_last && !flow.held && !has_room(*flow.key))
        return more; // it is told again
    bool has_more = false;
    for (size_t i = 0; i < FLOW_COUNTS; ++i) {
        const uint64_t told = std::min(counts[i], COUNT_MAX);
        if (told <= flow.told[i])
            continue;
        more[i] = told - flow.told[i];
        flow.told[i] = told;
        has_more = true;
    }
    if (!has_more)
        return more;
    if (!flow.held)
        count(*flow.key, amounts_of(more));
    note_changed(at);
    return more;
}

bool ledger::is_to_be_released(const open_flow &flow, int64_t now_ms) const {
    return flow.held && now_ms - flow.since_ms >= HELD_MS && has_room(*flow.key);
}

// Its counts so far become part of the sums.
void ledger::release(open_flow &flow) {
    flow.held = false;
    amounts all = amounts_of(flow.told);
    all[FLOWS] = 1;
    all[DENIALS] = flow.key->verdict == DENY ? 1 : 0;
    count(*flow.key, all);
}

ledger::flow_map::iterator ledger::close(flow_map::iterator at) {
    if (at->second.held)
        release(at->second);
    give_up(at->second.key);
    if (at->second.stored)
        removed_.push_back(at->first);
    if (at->second.changed_at != open_flow::UNCHANGED)
        changed_[at->second.changed_at] = nullptr;
    return flows_.erase(at);
}

void ledger::note_changed(flow_map::iterator at) {
    if (at->second.changed_at != open_flow::UNCHANGED)
        return;
    if (changed_.size() >= MAX_FLOWS + MAX_PENDING)
        drop_ended_changes();
    at->second.changed_at = changed_.size();
    changed_.push_back(&*at);
}

// While nothing can be written, flows come and go.
void ledger::drop_ended_changes() {
    std::erase(changed_, nullptr);
    for (size_t i = 0; i < changed_.size(); ++i)
        changed_[i]->second.changed_at = i;
}

bool ledger::has_room(const sum_key &key) const {
    return pending_.size() < MAX_PENDING || pending_.contains(key);
}

void ledger::count(const sum_key &key, const amounts &more) {
    auto at = pending_.find(key);
    if (at == pending_.end() && !has_room(key))
        at = pending_.try_emplace({OTHER, {OTHER, false}, key.verdict}).first;
    else if (at == pending_.end())
        at = pending_.try_emplace(key).first;
    add(at->second, more);
}

} // namespace avwatch
