// The records of web and URL filtering: what the controller sends about web policies and their
// bindings, and the URL-filtering agent's late answers.
//
// The payloads of commands 28 (web_policy_wire), 30 (web_intf_wire) and 31 (uf_agent_reply) have
// exactly these layouts, in host byte order but for the addresses, and are copied in with memcpy.
// Texts in them are text only once a NUL was seen inside their field. What the daemon keeps of them
// is in web_policy.h.
#pragma once

#include "platform/records.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

inline constexpr size_t WEB_CATEGORIES_MAX = 83; // of one policy; the ids of our table are 0 to 83
inline constexpr size_t WEB_PATTERNS_MAX = 16;   // of one list
inline constexpr uint32_t WEB_POLICIES_MAX = 1024;
inline constexpr uint32_t WEB_INTFS_MAX = 1024;

// The words for web_policy_wire::filter_type; the order is the number.
inline constexpr const char *WEB_FILTER_TYPES[] = {
    "NO_ADULT", "CLEAN_AND_SAFE", "CHILD_AND_STUDENT_FRIENDLY", "STRICT", "CUSTOM",
};

// A pattern without a wildcard at either end and the dot that stands between, which is what is
// looked for; nothing is left of a pattern that is wildcards and dots only, like "*" or "*.*".
constexpr std::string_view pattern_core(std::string_view pattern) {
    std::string_view core = pattern;
    if (pattern.starts_with('*'))
        core.remove_prefix(pattern.starts_with("*.") ? 2 : 1);
    if (pattern.ends_with('*'))
        core.remove_suffix(std::min<size_t>(core.size(), pattern.ends_with(".*") ? 2 : 1));
    return core;
}

using web_pattern = char[65];
using web_pattern_list = web_pattern[WEB_PATTERNS_MAX];

// What command 28 carries, 2,584 bytes:
//
//      0 filter_type      340 num_whitelist    2424 google_safe_search    2448 utp_id
//      4 num_categories   341 whitelist        2428 google_vip            2452 uuid
//      8 categories      1381 num_blacklist    2432 bing_safe_search      2517 name
//                        1382 blacklist        2436 bing_vip
//                                              2440 youtube_safe_search
//                                              2444 youtube_vip
struct web_policy_wire {
    uint32_t filter_type; // of WEB_FILTER_TYPES; shown, nothing else
    uint8_t num_categories;
    uint8_t padding1[3];
    int32_t categories[WEB_CATEGORIES_MAX]; // blocked; a decision compares all slots
    uint8_t num_whitelist;
    web_pattern_list whitelist;
    uint8_t num_blacklist;
    web_pattern_list blacklist;
    uint8_t padding2[2];
    uint8_t google_safe_search; // 1 = forced
    uint8_t padding3[3];
    uint32_t google_vip; // network byte order: what the engine's search hosts resolve to
    uint8_t bing_safe_search;
    uint8_t padding4[3];
    uint32_t bing_vip;
    uint8_t youtube_safe_search;
    uint8_t padding5[3];
    uint32_t youtube_vip;
    uint32_t utp_id; // the web UTP that uses the policy, 0 = none
    char uuid[65];   // the key; compared without regard to letter case
    char name[65];
    uint8_t padding6[2];
};
static_assert(sizeof(web_policy_wire) == 2584);
static_assert(offsetof(web_policy_wire, categories) == 8);
static_assert(offsetof(web_policy_wire, num_whitelist) == 340);
static_assert(offsetof(web_policy_wire, num_blacklist) == 1381);
static_assert(offsetof(web_policy_wire, google_safe_search) == 2424);
static_assert(offsetof(web_policy_wire, google_vip) == 2428);
static_assert(offsetof(web_policy_wire, youtube_vip) == 2444);
static_assert(offsetof(web_policy_wire, utp_id) == 2448);
static_assert(offsetof(web_policy_wire, uuid) == 2452);
static_assert(offsetof(web_policy_wire, name) == 2517);

// Values of web_intf_wire::op; any other is refused.
enum web_intf_op : uint32_t {
    WEB_INTF_DISABLE = 1,
    WEB_INTF_DELETE = 2,
    WEB_INTF_ADD = 3,
};

// What command 30 carries, 96 bytes:   0 enable   1 ifname   20 intf_value   24 op   28 policy_uuid
struct web_intf_wire {
    uint8_t enable;
    char ifname[17]; // compared with regard to letter case
    uint8_t padding1[2];
    uint32_t intf_value; // the controller's; logged and saved
    uint32_t op;         // web_intf_op
    char policy_uuid[65];
    uint8_t padding2[3];
};
static_assert(sizeof(web_intf_wire) == 96);
static_assert(offsetof(web_intf_wire, intf_value) == 20);
static_assert(offsetof(web_intf_wire, op) == 24);
static_assert(offsetof(web_intf_wire, policy_uuid) == 28);

// What command 31 carries, 216 bytes: a late answer and the request that it answers.
struct uf_agent_reply {
    urlf_answer answer;
    urlf_request request;
};
static_assert(sizeof(uf_agent_reply) == 216);
static_assert(offsetof(uf_agent_reply, request) == 32);
