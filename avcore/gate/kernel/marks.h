/* Code points (DSCP, RFC 2474). */
#pragma once

#include "avcore/gate/kernel/packet.h"
#include "avcore/gate/kernel/sums.h"

/* In place. False: the header lies in pages that the program can't see. IPv4's sum over its header
 * keeps the kernel's own over the packet what it was; IPv6 has none. */
static __always_inline bool write_class(struct __sk_buff *skb, const struct packet *packet,
                                        __u8 class) {
    __u8 *head = (__u8 *)in_place(skb, packet->network, sizeof(struct iphdr));
    if (!head)
        return false;
    if (packet->is_ipv6) {
        __be16 *words = (__be16 *)head; /* version, traffic class, the flow label's first bits */
        const __be16 was = *words;
        *words = (was & bpf_htons(0xF00F)) | bpf_htons((__u16)(class << 4));
        bpf_csum_update(skb, (__u32)(__u16)~was + *words);
        return true;
    }
    struct iphdr *ipv4 = (struct iphdr *)head;
    replace_in_sum(&ipv4->check, bpf_htons(ipv4->tos), bpf_htons(class));
    ipv4->tos = class;
    return true;
}

/* The bits of ECN (RFC 3168) are the ends' own. */
static __always_inline void set_dscp(struct __sk_buff *skb, const struct packet *packet,
                                     __u8 dscp) {
    const __u8 wanted = (__u8)(dscp << 2) | (packet->traffic_class & 3);
    if (wanted == packet->traffic_class)
        return;
    if (!write_class(skb, packet, wanted) &&
        bpf_skb_pull_data(skb, packet->network + sizeof(struct iphdr)) == 0)
        write_class(skb, packet, wanted);
}
