#include "avcore/watch/watched_flows.h"

#include "avcore/base/monotonic_clock.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <utility>

namespace avcore {
namespace {

constexpr int GATE_FLOWS_A_TURN = 256;
constexpr uint32_t PLACES_A_TURN = 64;
constexpr uint64_t SPARED_PARTS = 200; // of the time, one is for rounds
constexpr uint64_t LONGEST_SPARED_MS = 30'000;
constexpr int64_t COME_BACK_US = 60'000'000; // readers of the run before

endpoint endpoint_of(const uint8_t (&octets)[ip_address::SIZE], uint16_t port_be) {
    std::array<uint8_t, ip_address::SIZE> bytes;
    std::ranges::copy(octets, bytes.begin());
    endpoint side;
    side.address = ip_address(bytes);
    side.port = ntohs(port_be);
    return side;
}

bool is_open(const watched_flow &flow) {
    return flow.seen.begun != 0 && !flow.is_over();
}

} // namespace

watched_flows::watched_flows(surroundings around)
    : around_(std::move(around)), started_us_(around_.now_us()), rules_(around_.settings, "") {
    around_.flows.set_on_leave([this](flow_row &&row) { row_leaves(std::move(row)); });
}

watched_flows::~watched_flows() {
    around_.flows.set_on_leave(nullptr);
}

void watched_flows::attend(bool attended) {
    if (!std::exchange(attended_, attended) && attended)
        attended_us_ = around_.now_us();
    release_ended();
}

void watched_flows::remove(flow_reader &reader) {
    std::erase(readers_, &reader);
    release_ended();
}

// Rows.

// The packets of a flow that goes on are many, and behind a gate what they count is the gate's to
// say.
bool watched_flows::has_news(const flow_row &row) const {
    if (row.watched.place == 0)
        return true;
    return attended_ && !(row.watched.is_told && digest_of(row).all == row.watched.says);
}

// What nobody is told of at once waits for the next round, or the end.
void watched_flows::note(flow_row &row) {
    const bool waits = around_.behind != nullptr && !are_events_taken();
    if (waits && row.watched.place != 0)
        return flows_.note(row.watched.place - 1);
    if (!has_news(row))
        return;
    const bool has_flow = around_.behind == nullptr || row.enforcement.flow.has_value();
    if (!has_flow) // behind a gate: it has the packets in another flow
        return;
    uint32_t place = place_of(row);
    flows_.note(place);
    if (waits || !attended_)
        return;
    if (around_.behind == nullptr) {
        place = observe(place, sight_of(row.life));
    } else if (!is_open(flows_[place])) {
        if (const auto state = around_.behind->flow_of(flows_[place].key)) {
            place = observe(place, sight_of(*state));
            flows_[place].round = static_cast<uint32_t>(rounds_begun_);
        }
    }
    look_at_noted(place);
    // What the gate has is seen in the rounds.
    row.watched.is_told = around_.behind != nullptr && is_open(flows_[place]);
    row.watched.says = digest_of(row).all;
}

void watched_flows::denied(const flow_row &row) {
    if (row.watched.place == 0)
        return;
    const uint32_t place = row.watched.place - 1;
    flows_[place].denial_waits = !flows_[place].can_be_told();
    tell(flow_event::denied, place);
}

void watched_flows::attach(uint32_t place, flow_row &row) {
    watched_flow &flow = flows_[place];
    if (flow.row != nullptr)
        flow.row->watched = {};
    flow.row = &row;
    if (!flow.is_over())
        flow.own.reset();
    row.watched = {.place = place + 1};
}

uint32_t watched_flows::place_of(flow_row &row) {
    if (row.watched.place != 0)
        return row.watched.place - 1;
    uint32_t place = 0;
    if (around_.behind == nullptr)
        place = flows_.take();
    else if (const auto known = flows_.find(*row.enforcement.flow))
        place = *known;
    else
        place = flows_.take(*row.enforcement.flow);
    attach(place, row);
    return place;
}

// Of a flow of the gate's that may have no row.
uint32_t watched_flows::place_of(const gate_flow &key, const gate_flow_state &state) {
    if (const auto known = flows_.find(key))
        return *known;
    const uint32_t place = flows_.take(key);
    flows_[place].own = rows_.keep(row_of(key, state));
    return place;
}

flow_row watched_flows::row_of(const gate_flow &key, const gate_flow_state &state) {
    flow_row row;
    row.ipv4 = true;
    row.ip_proto = key.proto;
    row.client = endpoint_of(key.client, key.client_port_be);
    row.server = endpoint_of(key.server, key.server_port_be);
    row.client.mac = state.mac;
    rules_.capture_on(around_.behind->interface_of(state.if_index));
    const client_rules::fitting client = rules_.fitting_of(row.client);
    row.client_interface = client.profile.side.if_name;
    row.client_utp = client.profile.side.utp_id;
    row.client_rule = client.rule;
    return row;
}

void watched_flows::row_leaves(flow_row &&row) {
    if (row.watched.place == 0)
        return;
    const bool ends = !flows_[row.watched.place - 1].at_gate;
    if (attended_ && ends)
        observe(row.watched.place - 1, sight_of(row.life));
    const uint32_t place = row.watched.place - 1;
    watched_flow &flow = flows_[place];
    if (!attended_ && !flow.awaits)
        return free(place);
    look_at_noted(place);
    flow.row = nullptr;
    if (!flow.own)
        flow.own = rows_.keep(std::move(row));
    if (ends && !flow.is_over())
        end(place, flow_ending::forgotten);
    if (ends)
        flows_.retire(place);
    if (!flow.current && !flow.awaits)
        free(place);
}

// What is seen.

// Returns where what was seen belongs to: it may be another flow.
uint32_t watched_flows::observe(uint32_t place, const flow_sight &seen) {
    const watched_flow &flow = flows_[place];
    if (flow.seen.begun == 0) {
        begin(place, seen, seen.before);
    } else if (seen.begun != flow.seen.begun) {
        if (!flow.is_over())
            end_before(place, seen);
        place = renew(place);
        begin(place, seen, seen.before);
    } else if (flow.is_over()) {
        if (seen.counted == flow.seen.counted) {
            show_again(place, seen);
            return place;
        }
        const gate_counter from = flow.seen.counted;
        const unsigned continued = flow.continued + 1;
        place = renew(place);
        flows_[place].continued = continued;
        flow_sight rest = seen;
        rest.begun_us = seen.last_us; // or a little earlier
        begin(place, rest, from);
    }
    take_counts(place, seen);
    return place;
}

// What was over before anybody looked is none of anybody's here, but where a run before has left it
// and its readers come back, or where a reader asks for it.
void watched_flows::begin(uint32_t place, const flow_sight &seen, const gate_counter &from) {
    watched_flow &flow = flows_[place];
    flow.seen = seen;
    flow.from = from;
    flow.counts = {};
    flow.ending = ending_of(seen, around_.now_us());
    const bool is_past = flow.is_over() && seen.last_us <= around_.told_until_us;
    flow.is_earlier = flow.is_over() && !is_past && rounds_begun_ == 1;
    flow.is_asked = is_past && ends_us(seen) >= ends_from_us_;
    if (is_past && !flow.is_asked)
        return;
    flow.ending = flow_ending::none;
    write_id(flow, around_.run);
    flow.digest = digest_of(flow.known());
    flow.essence = flows_.change(place);
    flow.counts = seen.counted - from;
    if (seen.begun_us < attended_us_) // it was there
        return;
    tell(flow_event::begun, place);
    tell_news(place, row_digest(), flow.digest);
    if (flow.denial_waits)
        tell(flow_event::denied, place);
    if (flow.counts.limited != 0)
        tell(flow_event::limited, place);
}

// Another one of the same sides has begun. The gate may have forgotten them in between.
void watched_flows::end_before(uint32_t place, const flow_sight &seen) {
    watched_flow &flow = flows_[place];
    const bool goes_on = holds(seen.before, flow.seen.counted);
    if (goes_on)
        flow.counts = seen.before - flow.from;
    if (!goes_on)
        end(place, flow_ending::forgotten);
    else if (seen.begun_us - flow.seen.last_us >= FLOW_IDLE_US)
        end(place, flow_ending::idle);
    else
        end(place, ending_by(flow.seen.ends));
}

void watched_flows::take_counts(uint32_t place, const flow_sight &seen) {
    watched_flow &flow = flows_[place];
    if (flow.is_over()) {
        flow.seen = seen;
        return;
    }
    const bool was_limited = flow.counts.limited != 0;
    flow.seen.ends = seen.ends;
    if (seen.counted == flow.seen.counted || !holds(seen.counted, flow.seen.counted))
        return; // its times are the same, then, though the wall's clock may say otherwise
    flow.counts = seen.counted - flow.from;
    flow.seen.counted = seen.counted;
    flow.seen.last_us = seen.last_us;
    flows_.change(place);
    if (!was_limited && flow.counts.limited != 0)
        tell(flow_event::limited, place);
}

void watched_flows::look_at_row(uint32_t place) {
    watched_flow &flow = flows_[place];
    if (flow.row == nullptr || flow.is_over() || !flow.can_be_told())
        return;
    const row_digest now = digest_of(*flow.row);
    const row_digest before = std::exchange(flow.digest, now);
    if (now.all == before.all)
        return;
    flow.essence = flows_.change(place);
    tell_news(place, before, now);
}

void watched_flows::look_at_noted(uint32_t place) {
    const bool noted = flows_.take_note(place);
    if (noted || rechecks_ || all_changed_)
        look_at_row(place);
}

void watched_flows::tell_news(uint32_t place, const row_digest &before, const row_digest &now) {
    if (now.name != before.name)
        tell(flow_event::named, place);
    if (now.verdict != before.verdict && now.verdict != 0)
        tell(flow_event::judged, place);
}

// Ends.

// All of a round go by its beginning: how far it told ends can then be said of the whole.
void watched_flows::look_at_end(uint32_t place) {
    const watched_flow &flow = flows_[place];
    if (!flow.can_be_told() || flow.is_over())
        return;
    if (const flow_ending how = ending_of(flow.seen, round_begun_us_); how != flow_ending::none)
        end(place, how);
}

void watched_flows::end(uint32_t place, flow_ending how) {
    look_at_noted(place);
    watched_flow &flow = flows_[place];
    flow.ending = how;
    if (!flow.can_be_told())
        return;
    if (flow.row != nullptr) {
        flow.own = rows_.keep(*flow.row);
        flow.row->watched.is_told = false;
    }
    flow.ended = flows_.change(place);
    flow.awaits = true;
    ended_.push_back(place);
    if (!flow.is_asked)
        tell(flow_event::ended, place);
    if (ended_.size() <= MAX_ENDED || how == flow_ending::stopped)
        return;
    for (flow_reader *reader : readers_)
        reader->sum_up(ended_.front());
    flows_[ended_.front()].is_summed = true;
    release(ended_.front());
    ended_.pop_front();
}

// A reader may have been told, and lost it.
void watched_flows::show_again(uint32_t place, const flow_sight &seen) {
    watched_flow &flow = flows_[place];
    if (flow.awaits || flow.is_summed || ends_us(seen) < ends_from_us_)
        return;
    if (flow.id.empty())
        return begin(place, seen, flow.from);
    flow.is_asked = true;
    end(place, flow.ending);
}

std::optional<uint32_t> watched_flows::ended_behind(uint64_t change) const {
    const auto next = std::ranges::upper_bound(
        ended_, change, {}, [this](uint32_t place) { return flows_[place].ended; });
    return next != ended_.end() ? std::optional(*next) : std::nullopt;
}

bool watched_flows::awaits_readers() const {
    return around_.now_us() - started_us_ <= COME_BACK_US;
}

void watched_flows::release_ended() {
    const bool more_come = awaits_readers();
    const auto all_have = [this, more_come](uint32_t place) {
        return !(more_come && flows_[place].is_earlier) &&
               std::ranges::all_of(
                   readers_, [place](const flow_reader *reader) { return reader->has_end(place); });
    };
    while (!ended_.empty() && all_have(ended_.front())) {
        release(ended_.front());
        ended_.pop_front();
    }
}

// It stays where its sides have no other flow yet, so that what comes behind its end is known as
// that.
void watched_flows::release(uint32_t place) {
    watched_flow &flow = flows_[place];
    flow.awaits = false;
    if (!flow.current)
        return free(place);
    if (flow.row != nullptr)
        flow.own.reset();
}

void watched_flows::free(uint32_t place) {
    for (flow_reader *reader : readers_)
        reader->leave(place);
    if (flows_[place].row != nullptr)
        flows_[place].row->watched = {};
    flows_.free(place);
}

// The next flow of the same sides, in place of one that is over.
uint32_t watched_flows::renew(uint32_t place) {
    watched_flow &before = flows_[place];
    flows_.retire(place);
    const uint32_t next = before.at_gate ? flows_.take(before.key) : flows_.take();
    watched_flow &flow = flows_[next];
    flow.round = before.round;
    if (flow_row *row = std::exchange(before.row, nullptr)) {
        row->watched = {};
        attach(next, *row);
    } else if (before.own) {
        flow.own = rows_.keep(*before.own);
    } else {
        const auto state = around_.behind->flow_of(flow.key);
        flow.own = rows_.keep(row_of(flow.key, state.value_or(gate_flow_state())));
    }
    if (!before.awaits)
        free(place);
    return next;
}

void watched_flows::stop() {
    if (around_.behind != nullptr)
        return;
    for (uint32_t place = 0; place < places(); ++place) {
        if (flows_[place].row != nullptr)
            observe(place, sight_of(flows_[place].row->life));
        if (flows_[place].current && !flows_[place].is_over())
            end(place, flow_ending::stopped);
    }
}

bool watched_flows::are_events_taken() const {
    return std::ranges::any_of(readers_,
                               [](const flow_reader *reader) { return reader->takes_events(); });
}

void watched_flows::tell(flow_event what, uint32_t place) {
    if (flows_[place].can_be_told())
        for (flow_reader *reader : readers_)
            reader->happened(what, place);
}

// Rounds.

uint64_t watched_flows::want_round() {
    wanted_ = true;
    return rounds_begun_ + 1;
}

void watched_flows::begin_round() {
    wanted_ = false;
    walking_ = true;
    const int64_t before_us = std::exchange(round_begun_us_, around_.now_us());
    ++rounds_begun_;
    gate_walked_ = around_.behind == nullptr;
    gate_shown_ = !gate_walked_;
    cursor_ = 0;
    next_place_ = 0;
    rechecks_ = std::exchange(all_changed_, false);
    if (rounds_begun_ > 1 || !awaits_readers()) // what came and went since the last round is news
        around_.told_until_us = std::max(before_us, attended_us_) - LINGER_US;
    ends_from_us_ = INT64_MAX;
    for (const flow_reader *reader : readers_)
        ends_from_us_ = std::min(ends_from_us_, reader->ends_from_us());
}

void watched_flows::step() {
    if (!walking_ && !wanted_)
        return;
    const uint64_t begun_ns = monotonic_ns();
    if (!walking_)
        begin_round();
    go_on_with_round();
    round_took_ns_ += monotonic_ns() - begun_ns;
    if (!walking_)
        last_round_took_ns_ = std::exchange(round_took_ns_, 0);
}

void watched_flows::go_on_with_round() {
    if (!gate_walked_) {
        gate_walked_ = !walk_gate();
        return;
    }
    if (walk_places())
        return;
    walking_ = false;
    rounds_done_ = rounds_begun_;
}

int64_t watched_flows::spared_round_ms() const {
    const uint64_t spared_ms = last_round_took_ns_ * SPARED_PARTS / 1'000'000;
    return static_cast<int64_t>(std::min(spared_ms, LONGEST_SPARED_MS));
}

// False when it has come to the end.
bool watched_flows::walk_gate() {
    const flow_walk walked = around_.behind->walk_flows(
        cursor_, GATE_FLOWS_A_TURN, [this](const gate_flow &key, const gate_flow_state &state) {
            const uint32_t place = observe(place_of(key, state), sight_of(state));
            flows_[place].round = static_cast<uint32_t>(rounds_begun_);
        });
    gate_shown_ = gate_shown_ && walked != flow_walk::broken;
    return walked == flow_walk::goes_on;
}

bool watched_flows::walk_places() {
    const uint32_t until = std::min(next_place_ + PLACES_A_TURN, places());
    for (; next_place_ < until; ++next_place_)
        if (flows_[next_place_].used && flows_[next_place_].current)
            look_again(next_place_);
    release_ended();
    return next_place_ < places();
}

void watched_flows::look_again(uint32_t place) {
    const watched_flow &flow = flows_[place];
    if (!flow.at_gate) {
        place = observe(place, sight_of(flow.row->life));
    } else if (flow.round != static_cast<uint32_t>(rounds_begun_)) {
        const auto state = gate_shown_ ? std::nullopt : around_.behind->flow_of(flow.key);
        if (!state && flow.seen.begun != 0)
            return forget(place);
        if (state)
            place = observe(place, sight_of(*state));
    }
    look_at_noted(place);
    look_at_end(place);
}

// The gate has. What it sees again of the same sides is another flow.
void watched_flows::forget(uint32_t place) {
    watched_flow &flow = flows_[place];
    if (!flow.is_over())
        end(place, flow_ending::forgotten);
    flows_.retire(place);
    if (flow_row *row = std::exchange(flow.row, nullptr))
        row->watched = {};
    if (!flow.awaits)
        free(place);
}

} // namespace avcore
