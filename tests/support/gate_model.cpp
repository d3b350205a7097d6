#include "support/gate_model.h"

#include <algorithm>
#include <arpa/inet.h>
#include <netinet/in.h>

namespace {

constexpr uint8_t SYN = 2, RST = 4, ACK = 16;
constexpr __int128 A_SECOND = 1'000'000'000;

template <typename map_type>
auto *find(map_type &map, const typename map_type::key_type &key) {
    const auto found = map.find(key);
    return found == map.end() ? nullptr : &found->second;
}

} // namespace

void gate_model::pass(gate_count why) {
    count(why, packet_.segments);
    fate_.passes = true;
}

void gate_model::drop(gate_count why) {
    count(why, packet_.segments);
}

// A beat holds for two seconds.
packet_fate gate_model::fate_of(const made_packet &packet) {
    packet_ = packet;
    fate_ = {};
    fate_.priority = packet.priority;
    fate_.traffic_class = packet.traffic_class;
    back_ = packet.way == GATE_UP && settings.back_mark && packet.mark == settings.back_mark;
    fate_.mark = back_ ? 0 : packet.mark;
    attended_ = static_cast<int64_t>(tick_ns - settings.beat_ns) <= int64_t{2'000'000'000};
    if (back_)
        come_back();
    if (!attended_ && !settings.fail_closed)
        open();
    else if (nature() == GATE_COUNT_UNDECIDED && packet_.is_error)
        error();
    else if (nature() == GATE_COUNT_UNDECIDED)
        judge();
    else if (nature() == GATE_COUNT_ALWAYS)
        always();
    else if (nature() == GATE_COUNT_FRAGMENT)
        later_fragment();
    else if (nature() == GATE_COUNT_NOT_IP && attended_)
        pass(GATE_COUNT_NOT_IP);
    else
        drop(nature() == GATE_COUNT_NOT_IP ? GATE_COUNT_SHUT : nature());
    return fate_;
}

gate_count gate_model::nature() const {
    const bool fragment = packet_.nature == GATE_COUNT_FRAGMENT || packet_.first_fragment;
    if (fragment && packet_.way == GATE_UP && rule(GATE_DROP_FRAGMENTS))
        return GATE_COUNT_CUT;
    if (packet_.nature == GATE_COUNT_TAGS && rule(GATE_PASS_TAGS))
        return GATE_COUNT_NOT_IP;
    return packet_.nature;
}

// Everything passes. After an end in order that costs nothing, not even a look at the packet.
void gate_model::open() {
    const bool looks = settings.unattended || back_;
    if (!looks)
        packet_.segments = 1;
    if (looks && nature() == GATE_COUNT_UNDECIDED && !packet_.is_error) {
        ask(find(verdicts, packet_.flow));
        count_passed();
    }
    pass(GATE_COUNT_NOBODY);
}

void gate_model::judge() {
    const gate_verdict *verdict = find(verdicts, packet_.flow);
    if (attended_ && waits_for_others(verdict)) {
        hold(verdict != nullptr);
        return;
    }
    const bool excess = !ask(verdict);
    const bool decided = verdict && !(verdict->flags & GATE_NOT_YET_FINAL);
    if (!attended_ && !decided) {
        drop(GATE_COUNT_SHUT);
    } else if (verdict && verdict->action == GATE_DENY) {
        deny(*verdict);
    } else if (verdict) {
        allow(*verdict);
    } else if (back_ && settings.fail_closed) {
        drop(GATE_COUNT_SHUT);
    } else if (excess && packet_.way == GATE_UP && rule(GATE_DROP_EXCESS)) {
        drop(GATE_COUNT_EXCESS);
    } else {
        count_passed();
        pass(GATE_COUNT_UNDECIDED);
    }
}

void gate_model::deny(const gate_verdict &verdict) {
    const bool is_tcp = packet_.flow.proto == IPPROTO_TCP;
    const bool resets = verdict.flags & GATE_RESET;
    const uint8_t flags = packet_.tcp_flags;
    if (resets && is_tcp && (flags & RST) && !packet_.has_data) {
        pass(GATE_COUNT_DECIDED);
        return;
    }
    drop(GATE_COUNT_DENIED);
    flow_of_packet().counter.denied += packet_.segments;
    if (!resets || !is_tcp || packet_.first_fragment || packet_.extended || packet_.to_group ||
        (flags & RST))
        return;
    const bool only_asks = (flags & (SYN | ACK)) == SYN; // the connection isn't the server's yet
    count(GATE_COUNT_RESETS, only_asks ? 1 : 2);
    fate_.passes = fate_.is_reset = !only_asks;
}

void gate_model::allow(const gate_verdict &verdict) {
    if (!take_turn(verdict)) {
        flow_of_packet().counter.limited += packet_.segments;
        drop(GATE_COUNT_LIMITED);
        return;
    }
    if (verdict.flags & GATE_SET_DSCP) // the two bits of ECN are the ends' own
        fate_.traffic_class = static_cast<uint8_t>(verdict.dscp << 2 | (fate_.traffic_class & 3));
    count_passed();
    pass(GATE_COUNT_DECIDED);
}

void gate_model::always() {
    if (packet_.way == GATE_UP && !take(clients[packet_.client].always, GATE_ALWAYS_A_SECOND,
                                        GATE_ALWAYS_BURST, packet_.frame_bytes, now_ns))
        drop(GATE_COUNT_TOO_MUCH);
    else
        pass(GATE_COUNT_ALWAYS);
}

void gate_model::error() {
    const gate_verdict *verdict = packet_.quoted ? find(verdicts, *packet_.quoted) : nullptr;
    if (verdict && verdict->action == GATE_DENY)
        drop(GATE_COUNT_DENIED);
    else
        always();
}

void gate_model::later_fragment() {
    const gate_verdict *verdict = find(verdicts, fragments_of(packet_.flow));
    if (verdict && verdict->generation == settings.generation && !take_turn(*verdict))
        drop(GATE_COUNT_LIMITED);
    else
        pass(GATE_COUNT_FRAGMENT);
}

// Behind earlier packets of its flow, or because there is no verdict at all.
bool gate_model::waits_for_others(const gate_verdict *verdict) const {
    if (packet_.way != GATE_UP || back_ || !rule(GATE_HOLD))
        return false;
    if (!verdict)
        return true;
    const gate_hold *hold = find(holds, packet_.flow);
    if (verdict->action != GATE_PASS || !(verdict->flags & GATE_WAS_HELD) || !hold ||
        hold->taken == hold->back)
        return false;
    return now_ns < (hold->let_go_ns ? hold->let_go_ns + GATE_BEHIND_NS
                                     : hold->undecided_ns + 2 * GATE_BEHIND_NS);
}

void gate_model::hold(bool judged) {
    const uint32_t most = settings.holds_per_second;
    if (!most || !take(clients[packet_.client].held, most, most, std::min(packet_.segments, most),
                       tick_ns)) {
        count(GATE_COUNT_HOLDS_REFUSED, packet_.segments);
        return;
    }
    const auto [found, is_new] = holds.try_emplace(packet_.flow, gate_hold{});
    gate_hold &hold = found->second;
    const bool over = hold.let_go_ns || now_ns - hold.undecided_ns > 2 * GATE_BEHIND_NS;
    if (!is_new && !judged && over)
        hold = {};
    if (is_new || !judged)
        hold.undecided_ns = now_ns;
    hold.mark = packet_.mark;
    fate_.is_held = send_up(packet_.length);
    hold.taken += fate_.is_held ? packet_.segments : 0;
    count(fate_.is_held ? GATE_COUNT_HELD : GATE_COUNT_HOLDS_LOST, packet_.segments);
}

void gate_model::come_back() {
    count(GATE_COUNT_BACK);
    gate_hold *hold = find(holds, packet_.flow);
    if (!hold)
        return;
    if (!hold->let_go_ns)
        hold->let_go_ns = now_ns;
    hold->back++;
    fate_.mark = hold->mark;
}

// A copy goes up unless all is said about the flow. False: its client had too many.
bool gate_model::ask(const gate_verdict *verdict) {
    if (back_ || (!attended_ && !(settings.unattended & GATE_STILL_ASK)))
        return true;
    const bool settled = verdict && !(verdict->flags & GATE_NOT_YET_FINAL) &&
                         verdict->generation == settings.generation;
    if (settled && !shows_names() && !goes_astray(*verdict))
        return true;
    const uint32_t most = settings.copies_per_second;
    if (!most || !take(clients[packet_.client].copies[packet_.way], most, most, 1, tick_ns)) {
        count(GATE_COUNT_COPIES_REFUSED);
        return false;
    }
    const bool joined = packet_.flow.proto == IPPROTO_UDP && packet_.segment_size;
    const bool sent =
        send_up(std::min<uint32_t>(packet_.length, joined ? GATE_JOINED_MAX : GATE_FRAME_MAX));
    count(sent ? GATE_COUNT_COPIES : GATE_COUNT_COPIES_LOST);
    return true;
}

bool gate_model::shows_names() const {
    const uint16_t client = ntohs(packet_.flow.client_port_be);
    const uint16_t server = ntohs(packet_.flow.server_port_be);
    const bool dhcp = client == 68 && server == 67 && !packet_.is_v6;
    return packet_.flow.proto == IPPROTO_UDP && (client == 53 || server == 53 || dhcp);
}

// It leaves beside its queue; one in about a second of each flow is copied.
bool gate_model::goes_astray(const gate_verdict &verdict) {
    flow_state *flow = find(flows, packet_.flow);
    const auto second = static_cast<uint8_t>(tick_ns >> 30);
    if (!verdict.queue_at || verdict.queue_at == packet_.if_index || packet_.way != GATE_DOWN ||
        !flow || flow->astray == second)
        return false;
    flow->astray = second;
    return true;
}

bool gate_model::send_up(uint32_t size) {
    const auto taken = static_cast<uint32_t>((8 + sizeof(gate_copy) + size + 7) / 8 * 8);
    if (taken > ring_room)
        return false;
    ring_room -= taken;
    fate_.captured = size;
    return true;
}

// Within its limit, or shown to the queue that keeps it.
bool gate_model::take_turn(const gate_verdict &verdict) {
    const bool down = packet_.way == GATE_DOWN;
    const bool waits = down && verdict.queue_at == packet_.if_index;
    const uint32_t index = verdict.bucket[packet_.way];
    const gate_limit *limit = index ? find(limits, index) : nullptr;
    if (!waits && limit && limit->bytes_per_second &&
        !take(buckets[index], limit->bytes_per_second, limit->burst, packet_.ip_bytes, now_ns))
        return false;
    if (down && (verdict.flags & GATE_SET_PRIORITY) && (waits || !verdict.queue_at))
        fate_.priority = verdict.priority;
    return true;
}

gate_model::flow_state &gate_model::flow_of_packet() {
    const auto [found, is_new] = flows.try_emplace(packet_.flow);
    count(GATE_COUNT_FLOWS, is_new);
    return found->second;
}

void gate_model::count_passed() {
    gate_counter &counter = flow_of_packet().counter;
    counter.packets[packet_.way] += packet_.segments;
    counter.bytes[packet_.way] += packet_.frame_bytes;
}

// What is full within this nanosecond is full. Who has any takes all that it needs, into debt.
bool gate_model::take(bucket &from, uint64_t a_second, uint64_t burst, uint64_t cost,
                      uint64_t now) {
    const __int128 full = __int128{burst} * A_SECOND;
    const uint64_t elapsed = now > from.filled_ns ? now - from.filled_ns : 0;
    from.level += __int128{elapsed} * a_second;
    if (!from.filled_ns || from.level + a_second > full)
        from.level = full;
    from.filled_ns = std::max(from.filled_ns, now);
    const bool enough = from.level > 0;
    from.level -= enough ? cost * A_SECOND : 0;
    return enough;
}
