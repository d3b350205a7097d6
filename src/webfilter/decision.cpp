#include "webfilter/decision.h"

#include "control/tables/arc_tables.h"
#include "core/base/log.h"
#include "core/state/state.h"
#include "core/text/text.h"
#include "webfilter/list_trace.h"
#include "webfilter/policy_index.h"

#include <algorithm>
#include <cstring>

namespace {

using web_utp_entry = utp_entry<web_policy>;

const web_utp_entry *jorn_get_web_utp(uint32_t id) {
    return utp_lookup(jorn_state.web_utp_table, id);
}

const web_policy *__jorn_get_utp_web_policy_cfg(const web_utp_entry &entry) {
    const web_policy *policy = entry.policy;
    if (policy != nullptr)
        JORN_DEBUG("Policy attached to utp %s utp node value %d and web policu uuid %s utp name "
                   "%s\n",
                   printable_text(policy->name).c_str(), static_cast<int>(entry.id),
                   printable_text(entry.uuid).c_str(), printable_text(entry.name).c_str());
    return policy;
}

// The policy of one side's interface, or none.
const web_policy *policy_of_side(const pkt_ctx &ctx, std::string_view ifname) {
    constexpr char FUNCTION[] = "jorn_get_web_policy_cfg";
    const web_intf *binding = __jorn_get_web_intf(ifname);
    if (binding == nullptr || binding->enable == 0)
        return nullptr;
    JORN_DEBUG_AS(FUNCTION, "Web filter is enabled for %s\n",
                  printable_text(binding->ifname).c_str());
    const web_policy *policy = jorn_get_utp_web_policy(ctx.trailer_word2, ctx.trailer_word3);
    if (policy != nullptr) {
        JORN_DEBUG_AS(FUNCTION, "Web filter policy cfg found with utp\n");
        return policy;
    }
    if (binding->policy != nullptr)
        JORN_DEBUG_AS(FUNCTION,
                      "Web filter policy cfg is already attached to WLAN policy uuid %s\n",
                      printable_text(binding->policy_uuid).c_str());
    return binding->policy;
}

} // namespace

const web_intf *__jorn_get_web_intf(std::string_view ifname) {
    const web_intf *found = jorn_state.web_intf_list.find(
        [ifname](const web_intf &binding) { return ifname == binding.ifname; });
    if (found != nullptr)
        JORN_DEBUG("Found intf match\n");
    return found;
}

const web_policy *jorn_get_utp_web_policy(uint32_t trailer_word2, uint32_t trailer_word3) {
    const web_utp_entry *entry = jorn_get_web_utp(trailer_word3);
    if (entry == nullptr)
        entry = jorn_get_web_utp(trailer_word2);
    return entry != nullptr ? __jorn_get_utp_web_policy_cfg(*entry) : nullptr;
}

int jorn_get_web_policy_cfg(pkt_ctx *ctx) {
    const web_policy *policy = policy_of_side(*ctx, field_text(ctx->src_if_name));
    if (policy == nullptr)
        policy = policy_of_side(*ctx, field_text(ctx->dst_if_name));
    if (policy == nullptr) {
        JORN_ERROR("No Web/URL policy found\n");
        return WEB_NOT_FOUND;
    }
    ctx->web_cfg = policy;
    return WEB_FOUND;
}

int jorn_check_white_black_list(pkt_ctx *ctx, std::string_view domain) {
    if (domain.empty())
        return WEB_NOT_FOUND;
    const web_policy &policy = *ctx->web_cfg;
    JORN_DEBUG("White-list number %d and black-list number %d  and kernel domain %s\n",
               policy.num_whitelist, policy.num_blacklist, printable_text(domain).c_str());
    char lower_case[sizeof ctx->app_name];
    copy_lower_case(lower_case, domain);
    const int number = first_matching_pattern(policy, lower_case);
    trace_list_search(policy, number);
    if (number == NO_PATTERN)
        return WEB_NOT_FOUND;

    copy_text(ctx->web_domain, domain);
    constexpr int FIRST_BLACK = web_policy_index::FIRST_BLACK;
    if (number < FIRST_BLACK) {
        ctx->white_hit = WHITE_HIT;
        ctx->arc_action = ARC_ACTION_ALLOW;
        JORN_DEBUG("Domain name %s matched in whitelist\n",
                   printable_text(policy.whitelist[number]).c_str());
    } else {
        ctx->black_hit = BLACK_HIT;
        ctx->arc_action = ARC_ACTION_BLOCK;
        JORN_DEBUG("Domain name %s matched in blacklist\n",
                   printable_text(policy.blacklist[number - FIRST_BLACK]).c_str());
    }
    return WEB_FOUND;
}

int32_t first_blocked_category(const urlf_answer &answer, const web_policy &policy) {
    constexpr int32_t LAST = URLF_CATEGORIES - 1;
    for (int32_t i = 0; i <= std::min(answer.category_count, LAST); ++i) {
        if (is_blocked_category(policy, answer.categories[i]))
            return answer.categories[i];
    }
    return NO_CATEGORY;
}

int jorn_apply_web_policy(pkt_ctx *ctx) {
    urlf_answer answer;
    memcpy(&answer, ctx->uf_reply, sizeof answer);
    const bool has_categories = ctx->web_cfg != nullptr && answer.status != URLF_STATUS_NO_LIST;
    const int32_t blocked =
        has_categories ? first_blocked_category(answer, *ctx->web_cfg) : NO_CATEGORY;
    if (blocked != NO_CATEGORY) {
        ctx->app_cat_id = static_cast<uint16_t>(blocked);
        JORN_DEBUG("Found policy for category %d\n", blocked);
        ctx->arc_action = ARC_ACTION_BLOCK;
        ctx->web_action = WEB_ACTION_BLOCK;
        JORN_DEBUG("Final URL policy is BLOCKED/DENY for %s\n",
                   printable_text(ctx->web_domain).c_str());
        return WEB_FOUND;
    }
    const bool unknown = jorn_state.reachable_flag != 0 && ctx->app_cat_id == 0;
    ctx->arc_action = unknown ? ARC_ACTION_NO_POLICY : ARC_ACTION_ALLOW;
    return WEB_NOT_FOUND;
}
