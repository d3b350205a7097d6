#include "avwatch/present/present.h"

#include "avwatch/present/flow_names.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <functional>
#include <limits>
#include <string_view>
#include <unordered_set>

namespace avwatch {
namespace {

constexpr int64_t ENDED_SHOWN_MS = 10'000;
// avcore ends a flow after five minutes without a packet. What it doesn't speak of for longer has
// ended while this reader was too slow: its end is in a SUM.
constexpr int64_t UNHEARD_MAX_MS = 360'000;
constexpr uint64_t TIDY_TICKS = 10;
constexpr uint64_t GATE_NOTICES_TICKS = 4;
constexpr double GATE_BEAT_MS = 2'000; // as long a sign that somebody decides holds
constexpr uint64_t PORT_MAX = 65'535;

uint64_t grown(uint64_t before, uint64_t now) {
    return now > before ? now - before : 0; // who tells may be mistaken
}

flow_counts_growth growth(const watched_flow &before, const count_record &now) {
    return {
        {grown(before.up.packets, now.up.packets), grown(before.up.bytes, now.up.bytes)},
        {grown(before.down.packets, now.down.packets), grown(before.down.bytes, now.down.bytes)},
        {grown(before.dropped.denied, now.dropped.denied),
         grown(before.dropped.limited, now.dropped.limited)}};
}

uint32_t small(uint64_t number) {
    return static_cast<uint32_t>(std::min<uint64_t>(number, std::numeric_limits<uint32_t>::max()));
}

uint32_t small(const std::optional<uint64_t> &number) {
    return number ? small(*number) : flow_manner::NONE;
}

std::optional<uint64_t> said(uint32_t number) {
    return number != flow_manner::NONE ? std::optional<uint64_t>(number) : std::nullopt;
}

uint64_t number_of(const std::string &id) {
    return hash_of(id);
}

void put_counts(watched_flow &flow, const count_record &counts) {
    flow.last_us = counts.last_us;
    flow.up = counts.up;
    flow.down = counts.down;
    flow.dropped = counts.dropped;
}

// Each text of a record with its place in what flows have alike.
constexpr struct {
    shared_text flow_manner::*kept;
    std::string flow_record::*said;
} TEXTS[] = {
    {&flow_manner::protocol, &flow_record::protocol},
    {&flow_manner::interface, &flow_record::interface},
    {&flow_manner::verdict, &flow_record::verdict},
    {&flow_manner::gate, &flow_record::gate},
    {&flow_manner::ended, &flow_record::ended},
};
constexpr struct {
    shared_text flow_manner::*kept;
    std::string why_record::*said;
} WHY_TEXTS[] = {
    {&flow_manner::named_by, &why_record::named_by},
    {&flow_manner::by, &why_record::by},
    {&flow_manner::side, &why_record::side},
    {&flow_manner::reason, &why_record::reason},
};

} // namespace

std::string watched_flow::id_of(uint64_t number) {
    std::array<char, 17> text;
    snprintf(text.data(), text.size(), "%016" PRIx64, number);
    return text.data();
}

std::string watched_flow::id() const {
    return id_of(number);
}

size_t flow_manner_hash::operator()(const flow_manner &manner) const {
    size_t hash = 0;
    for (const auto &each : TEXTS)
        hash = hash * 31 + (manner.*each.kept).hash();
    for (const auto &each : WHY_TEXTS)
        hash = hash * 31 + (manner.*each.kept).hash();
    for (const uint32_t number : {manner.utp, manner.app_id, manner.cat_id, manner.rule,
                                  manner.profile, manner.wificalling})
        hash = hash * 31 + number;
    return hash;
}

flow_record watched_flow::record() const {
    const flow_manner &alike = manner.value();
    flow_record whole;
    whole.id = id();
    if (has_mac)
        whole.client_mac = client_key.text();
    for (const auto &each : TEXTS)
        whole.*each.said = (alike.*each.kept).text();
    for (const auto &each : WHY_TEXTS)
        whole.why.*each.said = (alike.*each.kept).text();
    whole.client = client.text();
    whole.client_port = client_port;
    whole.server = server.text();
    whole.server_port = server_port;
    whole.application = application.text();
    whole.host = host.text();
    whole.outdated = alike.outdated;
    whole.utp = alike.utp;
    whole.wificalling = said(alike.wificalling);
    whole.begun_us = begun_us;
    whole.last_us = last_us;
    whole.up = up;
    whole.down = down;
    whole.dropped = dropped;
    whole.why.app_id = alike.app_id;
    whole.why.cat_id = alike.cat_id;
    whole.why.name = name.text();
    whole.why.name_us = name_us;
    whole.why.rule = said(alike.rule);
    whole.why.profile = said(alike.profile);
    whole.why.text = text.text();
    return whole;
}

present::present(client_aliases aliases, names_kept names, uint32_t every_ms)
    : aliases_(std::move(aliases)), names_(names), every_ms_(every_ms), clients_(aliases_, {}) {}

flow_manner present::manner_of(const flow_record &shown) {
    flow_manner manner;
    for (const auto &each : TEXTS)
        manner.*each.kept = texts_.share(shown.*each.said);
    for (const auto &each : WHY_TEXTS)
        manner.*each.kept = texts_.share(shown.why.*each.said);
    manner.outdated = shown.outdated;
    manner.utp = small(shown.utp);
    manner.wificalling = small(shown.wificalling);
    manner.app_id = small(shown.why.app_id);
    manner.cat_id = small(shown.why.cat_id);
    manner.rule = small(shown.why.rule);
    manner.profile = small(shown.why.profile);
    return manner;
}

// But for its counts.
watched_flow present::watched(const flow_record &shown) {
    watched_flow flow;
    flow.number = number_of(shown.id);
    flow.has_mac = !shown.client_mac.empty();
    flow.client_key = texts_.share(clients_.key_of(shown.client_mac, shown.client));
    flow.client = texts_.share(shown.client);
    flow.application = given_names_.share(shown.application);
    flow.host = given_names_.share(shown.host);
    flow.name = given_names_.share(shown.why.name);
    flow.text = given_names_.share(shown.why.text);
    flow.manner = manners_.share(manner_of(shown));
    flow.server = server_address(shown.server);
    flow.client_port = static_cast<uint16_t>(std::min(shown.client_port, PORT_MAX));
    flow.server_port = static_cast<uint16_t>(std::min(shown.server_port, PORT_MAX));
    flow.begun_us = shown.begun_us;
    flow.name_us = shown.why.name_us;
    return flow;
}

void present::connected(const greeting_record &greeting) {
    if (greeting.epoch() != epoch_) {
        forget_untold_since(std::numeric_limits<int64_t>::max());
        flows_.clear();
        ended_.clear();
    }
    epoch_ = greeting.epoch();
    disconnected();
}

void present::disconnected() {
    is_listed_ = false;
    listed_since_ms_ = -1;
    deciders_ = {};
}

void present::take(const flow_record &told, int64_t now_ms) {
    if (!is_listed_ && listed_since_ms_ < 0)
        listed_since_ms_ = now_ms;
    const uint64_t number = number_of(told.id);
    const auto found = flows_.find(number);
    const bool is_new = found == flows_.end();
    if (is_new && !make_room()) {
        ++left_out_;
        return;
    }
    watched_flow &flow = is_new ? flows_[number] : found->second;
    const bool was_open = !is_new && !flow.has_ended();
    put(flow, watched(with_names(told, names_)), was_open);
    count(flow, told, now_ms);
    if (flow.has_ended() && (is_new || was_open))
        will_forget(number, now_ms);
}

void present::will_forget(uint64_t number, int64_t now_ms) {
    ended_.emplace_back(now_ms + ENDED_SHOWN_MS, number);
    while (ended_.size() > FLOWS_MAX)
        forget_ended(ended_.front().first);
}

void present::put(watched_flow &flow, watched_flow next, bool was_open) {
    const bool is_open = !next.has_ended();
    if (was_open && flow.owner() != next.owner())
        sums_.move_flow(flow.owner(), next.owner(), {flow.up, flow.down, flow.dropped},
                        flow.last_us);
    if (is_open && !was_open)
        sums_.open_flow(next.owner());
    if (was_open && !is_open)
        sums_.close_flow(next.owner());
    next.up = flow.up;
    next.down = flow.down;
    next.dropped = flow.dropped;
    next.counted = flow.counted;
    next.counted_ms = flow.counted_ms;
    flow = std::move(next);
}

void present::take(const count_record &told, int64_t now_ms) {
    const auto found = flows_.find(number_of(told.id));
    if (found == flows_.end()) {
        ++left_out_;
        return;
    }
    watched_flow &flow = found->second;
    const bool ends = !flow.has_ended() && !told.ended.empty();
    if (ends) {
        watched_flow next = flow;
        flow_manner manner = flow.manner.value();
        manner.ended = texts_.share(told.ended);
        next.manner = manners_.share(manner);
        put(flow, std::move(next), true);
    }
    count(flow, told, now_ms);
    if (ends)
        will_forget(flow.number, now_ms);
}

// What a flow has used before it was listed was used whenever.
void present::count(watched_flow &flow, const count_record &told, int64_t now_ms) {
    const flow_counts_growth more = growth(flow, told);
    if (is_listed_ && more.up.bytes + more.down.bytes != 0) {
        const int64_t every_ms = every_ms_;
        const int64_t since_ms = flow.counted_ms < 0 ? every_ms : now_ms - flow.counted_ms;
        // A burst came lately, however long there had been nothing; messages may wait, and then
        // come together.
        const auto seconds =
            static_cast<float>(std::clamp(since_ms, every_ms, 2 * every_ms)) / 1'000;
        flow.counted = {static_cast<float>(more.up.bytes) / seconds,
                        static_cast<float>(more.down.bytes) / seconds};
        flow.counted_ms = now_ms;
    }
    flow.told_ms = now_ms;
    put_counts(flow, told);
    sums_.grow(flow.owner(), more, told.last_us, is_listed_);
}

void present::take(const sum_record &told) {
    const flow_sums::owner owner = {
        texts_.share(clients_.key_of(told.client_mac, told.client)),
        given_names_.share(reduced(classify(told.application, ""), names_).text)};
    sums_.grow(owner, {told.up, told.down, told.dropped}, 0, is_listed_);
}

void present::take(const event_record &told) {
    if (told.what == "daemon" || told.what == "gate" || told.what == "policies")
        add_notice(told);
    if (told.what != "denied" || !told.flow)
        return;
    watched_flow flow = watched(with_names(*told.flow, names_));
    put_counts(flow, *told.flow);
    add_denial(flow, told.us);
}

void present::add_notice(const event_record &told) {
    if (told.what == "daemon") {
        deciders_.daemon = told.state;
    } else if (told.what == "gate" && told.interface.empty()) {
        deciders_.gate = told.state;
        gate_changed_ticks_ = ticks_;
    }
    if (notices_.size() == NOTICES_MAX)
        notices_.pop_front();
    notices_.push_back({++notices_made_, told.us, told.what, told.state, told.interface});
}

// How it was before anybody listened. The gate itself takes a moment to notice that nobody decides
// any more, which an event says at once.
void present::take(const gate_state &told) {
    if (!deciders_.gate.empty() && ticks_ - gate_changed_ticks_ < GATE_NOTICES_TICKS)
        return;
    const nlohmann::json &said = told.said;
    const auto fail = said.find("fail");
    if (!said.is_object() || fail == said.end() || !fail->is_string()) {
        deciders_.gate.clear();
        return;
    }
    const auto beat_ms = said.find("beat_age_ms");
    const bool is_beating =
        beat_ms != said.end() && beat_ms->is_number() && beat_ms->get<double>() < GATE_BEAT_MS;
    deciders_.gate = is_beating ? "deciding" : *fail == "closed" ? "closed" : "open";
}

void present::add_denial(const watched_flow &flow, uint64_t us) {
    if (denials_.size() == DENIALS_MAX)
        denials_.pop_front();
    denials_.push_back({++denials_made_, us, flow});
}

void present::listed() {
    forget_untold_since(listed_since_ms_ < 0 ? std::numeric_limits<int64_t>::max()
                                             : listed_since_ms_);
    is_listed_ = true;
    add_standing_denials();
}

// Of flows that were denied before anybody listened.
void present::add_standing_denials() {
    std::unordered_set<uint64_t> known;
    for (const denial &each : denials_)
        known.insert(each.flow.number);
    std::vector<const watched_flow *> standing;
    for (const auto &[number, flow] : flows_) {
        if (flow.verdict().text() == DENIED && !flow.has_ended() && !known.contains(number))
            standing.push_back(&flow);
    }
    std::ranges::sort(standing, {}, &watched_flow::last_us);
    const size_t too_many = standing.size() - std::min(standing.size(), DENIALS_MAX);
    for (size_t i = too_many; i < standing.size(); ++i)
        add_denial(*standing[i], standing[i]->last_us);
}

void present::take_clients(std::vector<client_record> said) {
    clients_ = known_clients(aliases_, std::move(said));
    // Who a flow without a MAC address belongs to may be known now.
    for (auto &[number, flow] : flows_) {
        if (flow.has_mac || flow.has_ended())
            continue;
        watched_flow next = flow;
        next.client_key = texts_.share(clients_.key_of("", flow.client.text()));
        put(flow, std::move(next), true);
    }
}

void present::tick(int64_t now_ms) {
    sums_.tick(ticked_ms_ < 0 ? 1'000 : now_ms - ticked_ms_, is_listed_);
    ticked_ms_ = now_ms;
    forget_ended(now_ms);
    if (++ticks_ % TIDY_TICKS != 0)
        return;
    if (is_listed_)
        forget_untold_since(now_ms - UNHEARD_MAX_MS);
    manners_.sweep(); // which hold texts
    texts_.sweep();
    given_names_.sweep();
}

bool present::make_room() {
    while (flows_.size() >= FLOWS_MAX && !ended_.empty())
        forget_ended(ended_.front().first);
    return flows_.size() < FLOWS_MAX;
}

// One that goes on after all stays.
void present::forget_ended(int64_t now_ms) {
    for (; !ended_.empty() && ended_.front().first <= now_ms; ended_.pop_front()) {
        const auto found = flows_.find(ended_.front().second);
        if (found != flows_.end() && found->second.has_ended())
            flows_.erase(found);
    }
}

void present::forget_untold_since(int64_t since_ms) {
    std::erase_if(flows_, [&](const auto &each) {
        const watched_flow &flow = each.second;
        const bool is_gone = !flow.has_ended() && flow.told_ms < since_ms;
        if (is_gone)
            sums_.close_flow(flow.owner());
        return is_gone;
    });
}

std::string present::id_of(const std::string &told) {
    return watched_flow::id_of(number_of(told));
}

const watched_flow *present::flow(const std::string &id) const {
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(id.data(), id.data() + id.size(), number, 16);
    const bool is_number = error == std::errc() && end == id.data() + id.size();
    return is_number ? flow(number) : nullptr;
}

const watched_flow *present::flow(uint64_t number) const {
    const auto found = flows_.find(number);
    return found != flows_.end() ? &found->second : nullptr;
}

traffic_rates present::rates_of(const watched_flow &flow, int64_t now_ms) const {
    const bool is_now = is_listed_ && !flow.has_ended() && flow.counted_ms >= 0 &&
                        now_ms - flow.counted_ms < int64_t{2} * every_ms_ + every_ms_ / 2;
    return is_now ? flow.counted : traffic_rates();
}

std::optional<flow_sums::owner> present::owner_of(const flow_choice &chosen) const {
    const auto client = texts_.find(chosen.client.value_or(""));
    const auto application = given_names_.find(chosen.application.value_or(""));
    if (!client || !application)
        return std::nullopt;
    return flow_sums::owner{*client, *application};
}

std::vector<const watched_flow *> present::flows(const flow_choice &chosen) const {
    std::vector<const watched_flow *> found;
    const auto owner = owner_of(chosen);
    if (!owner)
        return found;
    for (const auto &[number, flow] : flows_) {
        if ((!chosen.client || flow.client_key == owner->client) &&
            (!chosen.application || flow.application == owner->application))
            found.push_back(&flow);
    }
    return found;
}

std::vector<const flow_sum *> present::clients_used() const {
    return sums_.of(sum_kind::client);
}

std::vector<const flow_sum *> present::applications_used() const {
    return sums_.of(sum_kind::application);
}

std::vector<const flow_sum *> present::applications_of(const std::string &client) const {
    const auto key = texts_.find(client);
    return key ? sums_.of(sum_kind::client_application, &*key) : std::vector<const flow_sum *>();
}

std::vector<const flow_sum *> present::clients_of(const std::string &application) const {
    const auto name = given_names_.find(application);
    return name ? sums_.of(sum_kind::client_application, nullptr, &*name)
                : std::vector<const flow_sum *>();
}

const flow_sum *present::sum(const flow_choice &chosen) const {
    const auto owner = owner_of(chosen);
    if (!owner)
        return nullptr;
    if (chosen.client && chosen.application)
        return sums_.find(sum_kind::client_application, *owner);
    if (chosen.client)
        return sums_.find(sum_kind::client, *owner);
    return sums_.find(chosen.application ? sum_kind::application : sum_kind::all, *owner);
}

std::vector<traffic_rates> present::course(const flow_choice &chosen) const {
    const flow_sum *found = sum(chosen);
    return found != nullptr ? sums_.course(*found) : std::vector<traffic_rates>();
}

} // namespace avwatch
