/* The Internet checksum (RFC 1071), and how it changes with a word (RFC 1624). */
#pragma once

#include <linux/types.h>

static __always_inline __u16 folded(__u64 sum) {
    sum = (sum & 0xFFFFFFFF) + (sum >> 32);
    sum = (sum & 0xFFFF) + (sum >> 16);
    sum = (sum & 0xFFFF) + (sum >> 16);
    sum = (sum & 0xFFFF) + (sum >> 16);
    return (__u16)sum;
}

static __always_inline void replace_in_sum(__u16 *check, __u16 from, __u16 to) {
    *check = (__u16)~folded((__u64)(__u16) ~*check + (__u16)~from + to);
}
