// The URL-filtering decision: which web policy applies to a packet, whether its domain is on the
// policy's lists, and whether one of the domain's categories is blocked.
//
// Detection asks for the policy and the lists while it prepares the category request; the chain of
// a packet asks for the outcome afterwards, when no list decided. The late answers of the
// URL-filtering agent go the same ways.
//
// Lists and categories are looked up in the policy's index, which command 28 builds; whoever fills
// or changes a policy in another way calls build_policy_index (policy_index.h).
#pragma once

#include "control/records/arc.h"
#include "packet/records/context.h"
#include "webfilter/records/web_policy.h"

#include <cstdint>
#include <string_view>

// What the look-ups below return.
inline constexpr int WEB_FOUND = 0;
inline constexpr int WEB_NOT_FOUND = 3;

// Finds the policy that applies: of the source side's interface, else of the destination's. On an
// interface whose binding is enabled the policy of the packet's web UTP wins over its own. Returns
// 0 and fills web_cfg, or 3 when there is none.
int jorn_get_web_policy_cfg(pkt_ctx *ctx);

// Looks for a domain on the lists of web_cfg, which names a policy, the white one first. Returns 0
// and fills white_hit or black_hit, arc_action and web_domain, or 3 when it is on neither.
int jorn_check_white_black_list(pkt_ctx *ctx, std::string_view domain);

// Decides by the categories in uf_reply: fills arc_action, web_action, and app_cat_id when one is
// blocked. Returns 0 when blocked, else 3.
int jorn_apply_web_policy(pkt_ctx *ctx);

// The first binding of exactly this name, or none.
const web_intf *__jorn_get_web_intf(std::string_view ifname);

// The policy that the web UTP of word 3 names, or that of word 2 when word 3 is none: an entry
// without a policy hides word 2.
const web_policy *jorn_get_utp_web_policy(uint32_t trailer_word2, uint32_t trailer_word3);

inline constexpr int32_t NO_CATEGORY = 0;

// The first category of an answer that the policy blocks, or NO_CATEGORY. What is examined are
// the entries 0 to the count, inclusive, within the list.
int32_t first_blocked_category(const urlf_answer &answer, const web_policy &policy);
