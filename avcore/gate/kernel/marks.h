/* Code points (DSCP, RFC 2474). */
#pragma once

#include "avcore/gate/kernel/packet.h"
#include "avcore/gate/kernel/sums.h"

/* The header's sum over itself stays what it was, and so does the kernel's own over the packet. */
static __always_inline void set_dscp_ipv4(struct __sk_buff *skb, const struct packet *packet,
                                          __u8 tos) {
    struct iphdr head = packet->first.ipv4;
    head.tos = tos;
    replace_in_sum(&head.check, bpf_htons(packet->first.ipv4.tos), bpf_htons(tos));
    bpf_skb_store_bytes(skb, packet->network, &head, offsetof(struct iphdr, saddr), 0);
}

static __always_inline void set_dscp_ipv6(struct __sk_buff *skb, __u32 network, __u8 class) {
    __be16 head; /* version, traffic class, the flow label's first bits */
    if (bpf_skb_load_bytes(skb, network, &head, sizeof head))
        return;
    head = (head & bpf_htons(0xF00F)) | bpf_htons((__u16)(class << 4));
    bpf_skb_store_bytes(skb, network, &head, sizeof head, BPF_F_RECOMPUTE_CSUM);
}

/* The bits of ECN (RFC 3168) are the ends' own. */
static __always_inline void set_dscp(struct __sk_buff *skb, const struct packet *packet,
                                     __u8 dscp) {
    const __u8 wanted = (__u8)(dscp << 2) | (packet->traffic_class & 3);
    if (wanted == packet->traffic_class)
        return;
    if (packet->is_ipv6)
        set_dscp_ipv6(skb, packet->network, wanted);
    else
        set_dscp_ipv4(skb, packet, wanted);
}
