/* What goes up to avcore, and how much of each client's. */
#pragma once

#include "avcore/gate/kernel/limits.h"

/* tc_index of a datagram of DNS that came from a client. It stays with the packet, bridged or
 * routed, until it goes down to another. */
#define CAME_UP 0x4A55

struct whole_copy {
    struct gate_copy head;
    __u8 frame[GATE_HELD_MAX];
};

struct {
    __uint(type, BPF_MAP_TYPE_LRU_HASH);
    __uint(max_entries, GATE_CLIENTS);
    __type(key, struct gate_client);
    __type(value, struct gate_client_state);
} clients SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_RINGBUF);
    __uint(max_entries, GATE_RING_BYTES);
} copies SEC(".maps");

/* Where a copy is put together: too large for the stack. */
struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, struct whole_copy);
} workbench SEC(".maps");

static __always_inline struct gate_client_state *client_of(struct __sk_buff *skb,
                                                           const struct packet *packet) {
    struct gate_client client = {};
    const struct ethhdr *head = ethernet_of(skb);
    if (!head)
        return NULL;
    if (packet->direction == GATE_UP)
        __builtin_memcpy(client.mac, head->h_source, sizeof client.mac);
    else
        __builtin_memcpy(client.mac, head->h_dest, sizeof client.mac);
    struct gate_client_state *state = bpf_map_lookup_elem(&clients, &client);
    if (!state) {
        const struct gate_client_state unseen = {};
        bpf_map_update_elem(&clients, &client, &unseen, BPF_NOEXIST);
        state = bpf_map_lookup_elem(&clients, &client);
    }
    return state;
}

/* Without a lock, which maps of this kind can't hold: two processors may let one copy too many
 * through. The time of the tick will do: tokens that come a tick late are no fewer. */
static __always_inline bool may_copy(struct __sk_buff *skb, const struct packet *packet,
                                     __u32 a_second) {
    struct gate_client_state *client = a_second ? client_of(skb, packet) : NULL;
    if (!client)
        return false;
    if (take_tokens(&client->copies[packet->direction == GATE_UP ? GATE_UP : GATE_DOWN], a_second,
                    a_second, 1, packet->here->now_ns))
        return true;
    __sync_fetch_and_add(&client->refused, 1);
    return false;
}

/* 0 of what nobody cuts: a first fragment is one packet, whatever its sender says, and what else is
 * joined stays so. */
static __always_inline __u32 segment_size_of(struct __sk_buff *skb, const struct packet *packet) {
    const bool is_cut = packet->flow.proto == IPPROTO_TCP || packet->flow.proto == IPPROTO_UDP;
    return is_cut && !packet->first_fragment ? skb->gso_size : 0;
}

/* What a copy has of a frame: of joined datagrams the first ones. */
static __always_inline __u32 size_of_copy(struct __sk_buff *skb, const struct packet *packet) {
    const bool joined_datagrams = packet->flow.proto == IPPROTO_UDP && skb->gso_size;
    const __u32 most = joined_datagrams ? GATE_JOINED_MAX : GATE_FRAME_MAX;
    return skb->len < most ? skb->len : most;
}

/* False: the ring is full, or the frame can't be read. */
static __noinline bool send_up(struct __sk_buff *skb, const struct packet *packet, __u32 captured,
                               bool held) {
    const __u32 first = 0;
    struct whole_copy *copy = bpf_map_lookup_elem(&workbench, &first);
    if (!copy)
        return false;
    asm volatile("" : "+r"(captured)); /* the verifier has to see both bounds on one register */
    if (captured > GATE_HELD_MAX)
        captured = GATE_HELD_MAX;
    /* No frame is that short; older verifiers learn no bound from a comparison with 0. */
    if (captured < ETH_HLEN || bpf_skb_load_bytes(skb, 0, copy->frame, captured))
        return false;
    struct gate_copy *head = &copy->head;
    head->flow = packet->flow;
    head->time_ns = monotonic_now();
    head->if_index = skb->ifindex;
    head->length = skb->len;
    head->captured = (__u16)captured;
    head->segment_size = (__u16)segment_size_of(skb, packet);
    head->direction = packet->direction;
    head->came_up = packet->direction == GATE_DOWN && skb->tc_index == CAME_UP;
    head->held = held;
    head->is_ipv6 = packet->is_ipv6;
    head->vlan_type = skb->vlan_present ? bpf_ntohs((__u16)skb->vlan_proto) : 0;
    head->vlan_tci = (__u16)skb->vlan_tci;
    head->network = (__u16)packet->network;
    head->transport = (__u16)packet->transport;
    head->payload = (__u16)packet->headers;
    head->end = (__u16)packet->end;
    return bpf_ringbuf_output(&copies, copy, sizeof *head + captured, 0) == 0;
}

static __always_inline void send_copy(struct __sk_buff *skb, const struct packet *packet) {
    const bool lost = !send_up(skb, packet, size_of_copy(skb, packet), false);
    count(packet, lost ? GATE_COUNT_COPIES_LOST : GATE_COUNT_COPIES, 1);
}

/* False: its client had too many. */
static __always_inline bool copy_up(struct __sk_buff *skb, const struct packet *packet,
                                    const struct gate_settings *set) {
    if (!may_copy(skb, packet, set->copies_per_second)) {
        count(packet, GATE_COUNT_COPIES_REFUSED, 1);
        return false;
    }
    send_copy(skb, packet);
    return true;
}
