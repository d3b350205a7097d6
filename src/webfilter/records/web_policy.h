// What the daemon keeps of web policies and their bindings: the records as the commands bring them,
// texts ended inside their fields and counts within their lists, with the daemon's links and with
// what a packet's look-up needs.
#pragma once

#include "core/text/needle_index.h"
#include "webfilter/records/web.h"

#include <cstddef>
#include <cstdint>

// The blocked categories of a policy: those below 128, which are all of a usual table, as bits. Of
// others the record's own slots tell.
struct web_category_set {
    uint64_t bits[2];
    bool has_others;
};

// The lists and categories of a policy as a packet is compared with them, settled once, when the
// policy arrives. White patterns have the numbers 0 to 15, black ones 16 to 31, so that the lowest
// number that matches is the one that decides.
struct web_policy_index {
    static constexpr unsigned FIRST_BLACK = WEB_PATTERNS_MAX;

    needle_index<2 * WEB_PATTERNS_MAX> patterns; // without their wildcards
    uint64_t match_all;                          // nothing but wildcards: these match every domain
    web_category_set blocked;
};

struct web_policy : web_policy_wire {
    web_policy_index index;
    web_policy *next;
};
static_assert(sizeof(web_policy) <= 3072); // there may be 1,024 of them

struct web_intf : web_intf_wire {
    web_policy *policy; // of web_policy_list, or none
    web_intf *next;
};
