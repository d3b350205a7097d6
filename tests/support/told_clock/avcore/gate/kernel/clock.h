/* Times that a test tells (told_gate.h). The gate that it loads is compiled with this header in the
 * place of its own. */
#pragma once

#include <linux/bpf.h>

#include <bpf/bpf_helpers.h>

volatile struct {
    __u64 now_ns;
    __u64 tick;
} told;

static __always_inline __u64 monotonic_now(void) {
    return told.now_ns;
}

static __always_inline __u64 tick_now(void) {
    return told.tick;
}
