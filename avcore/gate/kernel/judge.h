/* What becomes of a packet: by its flow's verdict, or without one of its own. */
#pragma once

#include "avcore/gate/kernel/copies.h"
#include "avcore/gate/kernel/flows.h"
#include "avcore/gate/kernel/holds.h"
#include "avcore/gate/kernel/limits.h"
#include "avcore/gate/kernel/marks.h"
#include "avcore/gate/kernel/packet.h"
#include "avcore/gate/kernel/parse.h"
#include "avcore/gate/kernel/replies.h"

#define DNS_PORT_BE bpf_htons(53)
#define DHCP_PORTS_BE bpf_htonl(68 << 16 | 67) /* the client's and the server's, as in a flow */

static __always_inline int deny(struct __sk_buff *skb, const struct packet *packet,
                                const struct gate_verdict *verdict, struct gate_recent *place) {
    const bool resets = (verdict->flags & GATE_RESET) != 0;
    if (resets && is_pure_reset(packet))
        return pass(GATE_COUNT_DECIDED, packet);
    count(packet, GATE_COUNT_DENIED, packet->segments);
    struct gate_counter *counter = counter_for(skb, packet, place, false);
    if (counter)
        counter->denied += packet->segments; /* before a reset, which passes a gate meanwhile: that
                                                may give the place to another flow */
    return resets ? reset(skb, packet) : TC_ACT_SHOT;
}

/* Takes the packet's tokens, or shows it to its queue. False: it exceeds the limit. */
static __always_inline bool take_turn(struct __sk_buff *skb, const struct packet *packet,
                                      const struct gate_verdict *verdict) {
    const bool down = packet->direction == GATE_DOWN;
    const bool waits = down && verdict->queue_at == skb->ifindex;
    const __u32 bucket = down ? verdict->bucket[GATE_DOWN] : verdict->bucket[GATE_UP];
    if (!waits && !is_within_limit(bucket, packet))
        return false;
    if (down && (verdict->flags & GATE_SET_PRIORITY) && (waits || !verdict->queue_at))
        skb->priority = verdict->priority;
    return true;
}

static __always_inline int allow(struct __sk_buff *skb, const struct packet *packet,
                                 const struct gate_verdict *verdict, struct gate_recent *place) {
    if (!take_turn(skb, packet, verdict)) {
        struct gate_counter *counter = counter_for(skb, packet, place, false);
        if (counter)
            counter->limited += packet->segments;
        return drop(GATE_COUNT_LIMITED, packet);
    }
    if (verdict->flags & GATE_SET_DSCP)
        set_dscp(skb, packet, verdict->dscp);
    count_passed(skb, packet, place);
    return pass(GATE_COUNT_DECIDED, packet);
}

/* The packet leaves by another interface than that of its queue: its client has moved. */
static __always_inline bool goes_astray(struct __sk_buff *skb, const struct packet *packet,
                                        const struct gate_verdict *verdict) {
    return verdict->queue_at && verdict->queue_at != skb->ifindex && packet->direction == GATE_DOWN;
}

/* Whether avcore is to see it. Where a bridge doesn't know the client's place, each packet goes
 * astray at all interfaces but one; so it sees one in 2^30 ns of each flow. */
static __noinline bool is_astray_anew(const struct packet *packet) {
    struct gate_flow_record *record = bpf_map_lookup_elem(&flows, &packet->flow);
    const __u8 now = (__u8)(packet->here->now_ns >> 30);
    if (!record || record->astray == now)
        return false;
    record->astray = now;
    return true;
}

static __always_inline bool is_dns(const struct gate_flow *flow) {
    return flow->proto == IPPROTO_UDP &&
           (flow->client_port_be == DNS_PORT_BE || flow->server_port_be == DNS_PORT_BE);
}

/* One flow stands for the requests of all clients. */
static __always_inline bool is_dhcp(const struct packet *packet) {
    __be32 ports;
    __builtin_memcpy(&ports, &packet->flow.client_port_be, sizeof ports);
    return ports == DHCP_PORTS_BE && packet->flow.proto == IPPROTO_UDP && !packet->is_ipv6;
}

static __always_inline bool is_to_be_held(const struct packet *packet,
                                          const struct gate_settings *set,
                                          const struct gate_verdict *verdict) {
    if (packet->direction != GATE_UP || packet->is_back || !(set->rules & GATE_HOLD))
        return false;
    if (!verdict->action)
        return true;
    return verdict->action == GATE_PASS && (verdict->flags & GATE_WAS_HELD) &&
           are_others_behind(packet);
}

static __always_inline int judge(struct __sk_buff *skb, const struct packet *packet,
                                 const struct gate_settings *set, bool attended) {
    struct gate_verdict verdict;
    struct gate_recent *place = at_hand(packet, set, &verdict);
    const bool judged = verdict.action != 0;
    const bool decided = judged && !(verdict.flags & GATE_NOT_YET_FINAL);
    const bool settled = decided && verdict.generation == set->generation;
    bool excess = false;
    if (attended && is_to_be_held(packet, set, &verdict))
        return hold(skb, packet, set, judged);
    if (packet->direction == GATE_UP && is_dns(&packet->flow))
        skb->tc_index = CAME_UP;
    const bool shows_names = is_dns(&packet->flow) || is_dhcp(packet);
    if ((attended || (set->unattended & GATE_STILL_ASK)) && !packet->is_back &&
        (!settled || shows_names || (goes_astray(skb, packet, &verdict) && is_astray_anew(packet))))
        excess = !copy_up(skb, packet, set);
    if (!attended && !set->fail_closed) {
        count_passed(skb, packet, place);
        return pass(GATE_COUNT_NOBODY, packet);
    }
    if (!decided && !attended)
        return drop(GATE_COUNT_SHUT, packet);
    if (judged && verdict.action == GATE_DENY)
        return deny(skb, packet, &verdict, place);
    if (judged)
        return allow(skb, packet, &verdict, place);
    if (packet->is_back && set->fail_closed)
        return drop(GATE_COUNT_SHUT, packet); /* its verdict has left the map meanwhile */
    if (excess && packet->direction == GATE_UP && (set->rules & GATE_DROP_EXCESS))
        return drop(GATE_COUNT_EXCESS, packet);
    count_passed(skb, packet, place);
    return pass(GATE_COUNT_UNDECIDED, packet);
}

/* Whether the client may send it beside what it has sent of this kind. */
static __always_inline int pass_always(struct __sk_buff *skb, const struct packet *packet) {
    if (packet->direction == GATE_UP) {
        struct gate_client_state *client = client_of(skb, packet);
        if (!client || !take_tokens(&client->always, GATE_ALWAYS_A_SECOND, GATE_ALWAYS_BURST,
                                    frame_bytes(skb, packet), monotonic_now()))
            return drop(GATE_COUNT_TOO_MUCH, packet);
    }
    return pass(GATE_COUNT_ALWAYS, packet);
}

/* The flow of the packet that an error quotes, which went the other way and may be cut behind its
 * ports. False where it doesn't show one. */
static __always_inline bool quoted_flow(struct __sk_buff *skb, const struct packet *packet,
                                        struct gate_flow *flow) {
    const __u8 direction = packet->direction == GATE_UP ? GATE_DOWN : GATE_UP;
    const __u32 at = packet->transport + 8;
    __u32 ports_at;
    __be16 ports[2];
    union {
        struct iphdr ipv4;
        struct ipv6hdr ipv6;
    } head;
    if (packet->is_ipv6) {
        if (bpf_skb_load_bytes(skb, at, &head, sizeof head.ipv6))
            return false;
        flow->proto = head.ipv6.nexthdr == IPPROTO_ICMPV6 ? IPPROTO_ICMP : head.ipv6.nexthdr;
        set_addresses(flow, direction, head.ipv6.saddr.in6_u.u6_addr32,
                      head.ipv6.daddr.in6_u.u6_addr32, sizeof head.ipv6.saddr);
        ports_at = at + sizeof head.ipv6;
    } else {
        if (bpf_skb_load_bytes(skb, at, &head, sizeof head.ipv4) ||
            (head.ipv4.frag_off & bpf_htons(FRAGMENT_OFFSET)))
            return false;
        flow->proto = head.ipv4.protocol;
        set_addresses(flow, direction, &head.ipv4.saddr, &head.ipv4.daddr, sizeof head.ipv4.saddr);
        ports_at = at + head.ipv4.ihl * 4;
    }
    const bool has_ports = flow->proto == IPPROTO_TCP || flow->proto == IPPROTO_UDP;
    if (ports_at + (has_ports ? sizeof ports : 0) > packet->end) /* padding shows nothing */
        return false;
    if (!has_ports)
        return true;
    if (bpf_skb_load_bytes(skb, ports_at, ports, sizeof ports))
        return false;
    set_ports(flow, direction, ports[0], ports[1]);
    return true;
}

static __noinline int judge_error(struct __sk_buff *skb, const struct packet *packet) {
    struct gate_flow quoted = {};
    if (quoted_flow(skb, packet, &quoted)) {
        const struct gate_verdict *verdict = bpf_map_lookup_elem(&verdicts, &quoted);
        if (verdict && verdict->action == GATE_DENY)
            return drop(GATE_COUNT_DENIED, packet);
    }
    return pass_always(skb, packet);
}

/* A later fragment: it shows no ports. */
static __always_inline int pass_fragment(struct __sk_buff *skb, const struct packet *packet,
                                         const struct gate_settings *set) {
    struct gate_flow pair = packet->flow;
    pair.proto = 0;
    pair.fragments = 1;
    const struct gate_verdict *verdict = bpf_map_lookup_elem(&verdicts, &pair);
    if (verdict && verdict->generation == set->generation && !take_turn(skb, packet, verdict))
        return drop(GATE_COUNT_LIMITED, packet);
    return pass(GATE_COUNT_FRAGMENT, packet);
}
