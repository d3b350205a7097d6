/* The times by which the program goes, from wherever it is built with. */
#pragma once

#include <linux/bpf.h>

#include <bpf/bpf_helpers.h>

static __always_inline __u64 monotonic_now(void) {
    return bpf_ktime_get_ns();
}

static __always_inline __u64 tick_now(void) {
    return bpf_jiffies64();
}
