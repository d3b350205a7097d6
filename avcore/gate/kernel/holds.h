/* A client's packets that wait for their flow's first verdict: taken out of the kernel, and put
 * back by avcore through a device of its own. */
#pragma once

#include "avcore/gate/kernel/copies.h"
#include "avcore/gate/kernel/parse.h"

struct {
    __uint(type, BPF_MAP_TYPE_LRU_HASH);
    __uint(max_entries, GATE_HOLDS);
    __type(key, struct gate_flow);
    __type(value, struct gate_hold);
} holds SEC(".maps");

/* Counts the packet as taken. `judged`: it only goes behind others. Where the others have gone on,
 * or nothing is left of them, another count begins. */
static __always_inline struct gate_hold *
note_taken(struct __sk_buff *skb, const struct packet *packet, __u32 pieces, bool judged) {
    const __u64 now = monotonic_now();
    struct gate_hold *hold = bpf_map_lookup_elem(&holds, &packet->flow);
    if (!hold) {
        const struct gate_hold begun = {.undecided_ns = now};
        bpf_map_update_elem(&holds, &packet->flow, &begun, BPF_NOEXIST);
        hold = bpf_map_lookup_elem(&holds, &packet->flow);
        if (!hold)
            return NULL;
    } else if (!judged && (hold->let_go_ns || now - hold->undecided_ns > 2 * GATE_BEHIND_NS)) {
        hold->taken = hold->back = 0;
        hold->let_go_ns = 0;
    }
    if (!judged)
        hold->undecided_ns = now;
    hold->mark = skb->mark;
    __sync_fetch_and_add(&hold->taken, pieces);
    return hold;
}

static __always_inline bool may_hold(struct __sk_buff *skb, const struct packet *packet,
                                     __u32 a_second, __u32 pieces) {
    struct gate_client_state *client = a_second ? client_of(skb, packet) : NULL;
    const __u32 cost = pieces < a_second ? pieces : a_second; /* no debt of many seconds */
    return client && take_tokens(&client->held, a_second, a_second, cost, packet->here->now_ns);
}

static __always_inline bool is_too_long(struct __sk_buff *skb, const struct packet *packet,
                                        __u32 pieces) {
    const __u32 longest = pieces > 1 ? segment_size_of(skb, packet) + packet->headers : skb->len;
    return skb->len > GATE_HELD_MAX || longest > GATE_BACK_MAX;
}

/* What can't be held is lost to its flow: nothing passes before its verdict. */
static __noinline int hold(struct __sk_buff *skb, const struct packet *packet,
                           const struct gate_settings *set, bool judged) {
    const __u32 pieces = gate_pieces(packet->headers, packet->end, segment_size_of(skb, packet));
    if (!may_hold(skb, packet, set->holds_per_second, pieces)) {
        count(packet, GATE_COUNT_HOLDS_REFUSED, pieces);
        return TC_ACT_SHOT;
    }
    if (is_too_long(skb, packet, pieces)) {
        send_copy(skb, packet);
        count(packet, GATE_COUNT_HELD_LONG, pieces);
        return TC_ACT_SHOT;
    }
    struct gate_hold *of_flow =
        note_taken(skb, packet, pieces, judged); /* before avcore can see it */
    if (send_up(skb, packet, skb->len, true)) {
        count(packet, GATE_COUNT_HELD, pieces);
        return TC_ACT_SHOT;
    }
    if (of_flow)
        __sync_fetch_and_add(&of_flow->taken, -(__u64)pieces);
    count(packet, GATE_COUNT_HOLDS_LOST, pieces);
    return TC_ACT_SHOT;
}

/* Whether earlier packets of its flow are still on their way back. */
static __noinline bool are_others_behind(const struct packet *packet) {
    const struct gate_hold *hold = bpf_map_lookup_elem(&holds, &packet->flow);
    if (!hold || hold->taken == hold->back)
        return false;
    const __u64 until = hold->let_go_ns ? hold->let_go_ns + GATE_BEHIND_NS
                                        : hold->undecided_ns + 2 * GATE_BEHIND_NS;
    return monotonic_now() < until;
}

/* A packet that has come back goes on at the processor at which avcore wrote it, and may wait in
 * its queue once more at each veth on the way; what comes meanwhile at another processor would
 * overtake it. So it counts as back only when a copy of it, the runner, has come out of that queue
 * LAPS times: the first time the packet has gone as far as it goes without waiting, and each
 * further time one wait further. The runner's mark is its lap; what avcore writes has none. */
#define LAPS 4

/* The mark that it came back by is gone already; it gets another's. */
static __always_inline void note_back(struct __sk_buff *skb, const struct packet *packet,
                                      __u32 back_index) {
    struct gate_hold *hold = bpf_map_lookup_elem(&holds, &packet->flow);
    count(packet, GATE_COUNT_BACK, 1);
    if (!hold)
        return;
    if (!hold->let_go_ns)
        hold->let_go_ns = monotonic_now();
    skb->mark = 1;
    if (bpf_clone_redirect(skb, back_index, BPF_F_INGRESS) != 0)
        __sync_fetch_and_add(&hold->back, 1);
    skb->mark = hold->mark;
}

static __always_inline int run_lap(struct __sk_buff *skb) {
    struct packet packet = {.direction = GATE_UP};
    if (skb->mark < LAPS) {
        skb->mark++;
        return bpf_redirect(skb->ifindex, BPF_F_INGRESS);
    }
    parse_frame(skb, &packet);
    struct gate_hold *hold = bpf_map_lookup_elem(&holds, &packet.flow);
    if (hold)
        __sync_fetch_and_add(&hold->back, 1);
    return TC_ACT_SHOT;
}
