/* RST segments, made of the packet that is denied. */
#pragma once

#include "avcore/gate/kernel/packet.h"
#include "avcore/gate/kernel/sums.h"

#define HOP_LIMIT 64 /* of packets made here */

struct ends {
    __u8 macs[2][6]; /* destination first, as in the frame */
    union {
        struct iphdr ipv4;
        struct ipv6hdr ipv6;
    };
};

static __always_inline __u64 sum_of(const void *words, __u32 size) {
    __u64 sum = 0;
    for (__u32 i = 0; i < size / 4; i++) {
        __u32 word;
        __builtin_memcpy(&word, (const __u8 *)words + i * 4, 4);
        sum += word;
    }
    return sum;
}

/* The sum over the pseudo-header. That the addresses of IPv4 are mapped adds nothing to it: 0xFFFF
 * is another zero there. */
static __always_inline __u16 pseudo_sum(const struct gate_flow *flow, __u32 length) {
    return folded(sum_of(flow, 32) + bpf_htonl(IPPROTO_TCP) + bpf_htonl(length));
}

/* Packets made by this machine, or put together from several, hold the pseudo-header's sum alone;
 * the rest is added when they leave. */
static __always_inline bool is_checksum_partial(const struct packet *packet, __u16 check) {
    return check == pseudo_sum(&packet->flow, packet->end - packet->transport);
}

static __always_inline void finish_tcp(const struct packet *packet, const struct tcp_header *denied,
                                       struct tcp_header *tcp) {
    tcp->offset = 5 << 4;
    tcp->window = 0;
    tcp->urgent = 0;
    tcp->check = 0;
    const __u16 pseudo = pseudo_sum(&packet->flow, sizeof *tcp);
    tcp->check = is_checksum_partial(packet, denied->check)
                     ? pseudo
                     : (__u16)~folded((__u64)pseudo + sum_of(tcp, sizeof *tcp));
}

static __always_inline void swap_words(__be32 *a, __be32 *b, __u32 words) {
    for (__u32 i = 0; i < words; i++) {
        const __be32 kept = a[i];
        a[i] = b[i];
        b[i] = kept;
    }
}

static __always_inline void turn_round(const struct packet *packet, struct ends *ends) {
    __u8 mac[6];
    __builtin_memcpy(mac, ends->macs[0], 6);
    __builtin_memcpy(ends->macs[0], ends->macs[1], 6);
    __builtin_memcpy(ends->macs[1], mac, 6);
    if (packet->is_ipv6)
        swap_words(ends->ipv6.saddr.in6_u.u6_addr32, ends->ipv6.daddr.in6_u.u6_addr32, 4);
    else
        swap_words(&ends->ipv4.saddr, &ends->ipv4.daddr, 1);
}

static __always_inline bool load_ends(struct __sk_buff *skb, const struct packet *packet,
                                      struct ends *ends) {
    if (bpf_skb_load_bytes(skb, 0, ends->macs, sizeof ends->macs))
        return false;
    if (packet->is_ipv6) {
        if (bpf_skb_load_bytes(skb, packet->network, &ends->ipv6, sizeof ends->ipv6))
            return false;
        ends->ipv6.payload_len = bpf_htons(sizeof(struct tcp_header));
        ends->ipv6.hop_limit = HOP_LIMIT;
        return true;
    }
    struct iphdr *head = &ends->ipv4;
    if (bpf_skb_load_bytes(skb, packet->network, head, sizeof *head))
        return false;
    const __be16 length =
        bpf_htons((__u16)(packet->transport - packet->network + sizeof(struct tcp_header)));
    replace_in_sum(&head->check, head->tot_len, length);
    replace_in_sum(&head->check, bpf_htons((__u16)(head->ttl << 8)), bpf_htons(HOP_LIMIT << 8));
    head->tot_len = length;
    head->ttl = HOP_LIMIT;
    return true;
}

/* The packet is cut already. The kernel's own sum over a received packet doesn't hold the MACs. */
static __always_inline bool store(struct __sk_buff *skb, const struct packet *packet,
                                  const struct ends *ends, const struct tcp_header *denied,
                                  struct tcp_header *tcp) {
    finish_tcp(packet, denied, tcp);
    if (bpf_skb_store_bytes(skb, 0, ends->macs, sizeof ends->macs, 0) ||
        bpf_skb_store_bytes(skb, packet->transport, tcp, sizeof *tcp, BPF_F_RECOMPUTE_CSUM))
        return false;
    return (packet->is_ipv6 ? bpf_skb_store_bytes(skb, packet->network, &ends->ipv6,
                                                  sizeof ends->ipv6, BPF_F_RECOMPUTE_CSUM)
                            : bpf_skb_store_bytes(skb, packet->network, &ends->ipv4,
                                                  sizeof ends->ipv4, BPF_F_RECOMPUTE_CSUM)) == 0;
}

/* A group that is answered would multiply the answer. */
static __always_inline bool is_for_group(const struct ends *ends) {
    return (ends->macs[0][0] & 1) != 0;
}

/* What a closed port would have said (RFC 9293, 3.10.7.1). */
static __always_inline struct tcp_header answer_to(const struct packet *packet,
                                                   const struct tcp_header *in) {
    struct tcp_header out = {.source = in->dest, .dest = in->source, .flags = TCP_RST};
    if (in->flags & TCP_ACK) {
        out.seq = in->ack;
        return out;
    }
    const __u32 data = packet->end - packet->headers;
    out.ack = bpf_htonl(bpf_ntohl(in->seq) + data + ((in->flags & TCP_SYN) != 0) +
                        ((in->flags & TCP_FIN) != 0));
    out.flags = TCP_RST | TCP_ACK;
    return out;
}

static __always_inline bool is_pure_reset(const struct packet *packet) {
    return packet->flow.proto == IPPROTO_TCP && (packet->tcp_flags & TCP_RST) &&
           packet->headers == packet->end;
}

/* Answers the sender, and makes the packet itself the receiver's RST; a connection that is only
 * asked for exists at its sender alone. */
static __noinline int reset(struct __sk_buff *skb, const struct packet *packet) {
    struct ends ends;
    struct tcp_header denied;
    if (packet->flow.proto != IPPROTO_TCP || packet->extended || packet->first_fragment ||
        (packet->tcp_flags & TCP_RST))
        return TC_ACT_SHOT;
    if (!load_ends(skb, packet, &ends) || is_for_group(&ends) ||
        bpf_skb_load_bytes(skb, packet->transport, &denied, sizeof denied) ||
        bpf_skb_change_tail(skb, packet->transport + sizeof(struct tcp_header), 0))
        return TC_ACT_SHOT;
    struct tcp_header tcp = answer_to(packet, &denied);
    turn_round(packet, &ends);
    if (!store(skb, packet, &ends, &denied, &tcp) ||
        bpf_clone_redirect(skb, skb->ifindex, packet->direction == GATE_DOWN ? BPF_F_INGRESS : 0))
        return TC_ACT_SHOT;
    count(packet, GATE_COUNT_RESETS, 1);
    if ((denied.flags & TCP_SYN) && !(denied.flags & TCP_ACK))
        return TC_ACT_SHOT;
    tcp = denied;
    tcp.flags = TCP_RST | (denied.flags & TCP_ACK);
    turn_round(packet, &ends);
    if (!store(skb, packet, &ends, &denied, &tcp))
        return TC_ACT_SHOT;
    count(packet, GATE_COUNT_RESETS, 1);
    return TC_ACT_UNSPEC;
}
