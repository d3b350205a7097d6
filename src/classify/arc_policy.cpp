#include "classify/arc_policy.h"

#include "control/records/arc_index.h"
#include "control/tables/arc_tables.h"
#include "core/base/log.h"
#include "core/state/state.h"
#include "core/text/text.h"

#include <bit>
#include <cstring>

namespace {

constexpr size_t FLOW_NAME_MAX = 64;
constexpr size_t COMPLETED_BELOW = 60;
constexpr std::string_view TOP_LEVEL_DOMAIN = ".com";

// A flow's name as rule domains are looked for in it: lower case, completed where it is short.
class searchable_name {
public:
    explicit searchable_name(std::string_view name) {
        name = name.substr(0, FLOW_NAME_MAX);
        for (const char c : name)
            text_[length_++] = ascii_lower(c);
        if (length_ != 0 && length_ < COMPLETED_BELOW) {
            memcpy(text_ + length_, TOP_LEVEL_DOMAIN.data(), TOP_LEVEL_DOMAIN.size());
            length_ += TOP_LEVEL_DOMAIN.size();
        }
    }

    std::string_view text() const { return {text_, length_}; }

    text_signature signature() const { return signature_of(text()); }

private:
    char text_[FLOW_NAME_MAX + TOP_LEVEL_DOMAIN.size()];
    size_t length_ = 0;
};

// The rules that may fit, as a bit each: those by id do, a domain is to be looked for yet.
struct candidate_rules {
    uint64_t by_id;
    uint64_t by_domain;
};

// The rules whose application id and category are the context's, as a bit each.
uint64_t rules_with_ids_of(const pkt_ctx &ctx, const arc_rule_index &index) {
    if (ctx.app_id == 0 || index.id_rules == 0)
        return 0;
    const uint32_t wanted = uint32_t{ctx.app_id} << 16 | ctx.app_cat_id;
    uint64_t found = 0;
    for (unsigned n = 0; n < ARC_RULES_PER_POLICY; ++n)
        found |= uint64_t{index.ids[n] == wanted} << n;
    return found;
}

candidate_rules walk_rules(const pkt_ctx &ctx, const arc_policy &policy) {
    candidate_rules found = {};
    for (unsigned n = 0; n < ARC_RULES_PER_POLICY; ++n) {
        const arc_rule &rule = policy.rules[n];
        if (rule.app_id == 0)
            found.by_domain |= uint64_t{rule.app_name[0] != '\0'} << n;
        else if (rule.app_id == ctx.app_id && rule.cat_id == ctx.app_cat_id)
            found.by_id |= uint64_t{1} << n;
    }
    return found;
}

candidate_rules candidates_in(const arc_policy &policy, const pkt_ctx &ctx,
                              const searchable_name &name) {
    if (policy.index == nullptr)
        return walk_rules(ctx, policy);
    return {rules_with_ids_of(ctx, *policy.index),
            policy.index->domains.candidates(name.signature())};
}

const arc_rule *first_fitting_rule(const pkt_ctx &ctx, const searchable_name &name,
                                   const arc_policy &policy) {
    constexpr char FUNCTION[] = "__jorn_policy_match";
    const auto [by_id, by_domain] = candidates_in(policy, ctx, name);
    for (uint64_t left = by_id | by_domain; left != 0; left &= left - 1) {
        const auto n = static_cast<unsigned>(std::countr_zero(left));
        const arc_rule *rule = &policy.rules[n];
        if ((by_id >> n & 1) != 0) {
            JORN_DEBUG_AS(FUNCTION, "__jorn_policy_match: matched appid: %d catid: %d\n",
                          ctx.app_id, ctx.app_cat_id);
            return rule;
        }
        if (lower_case_contains(name.text(), field_text(rule->app_name))) {
            JORN_DEBUG_AS(FUNCTION, "__jorn_policy_match: Domain matched %s\n",
                          printable_text(ctx.app_name).c_str());
            return rule;
        }
    }
    return nullptr;
}

// Looks one side's profile up. Returns whether it has a UTP entry.
bool match_side(pkt_ctx &ctx, const searchable_name &name, uint32_t utp_id) {
    const utp_entry<arc_policy> *entry = utp_lookup(jorn_state.arc_utp_table, utp_id);
    if (entry == nullptr)
        return false;
    ctx.arc_cfg = entry->policy;
    if (entry->policy != nullptr)
        ctx.arc_rule = first_fitting_rule(ctx, name, *entry->policy);
    return true;
}

// Asks the source side, then the destination side. Returns whether the last side asked has a UTP
// entry.
bool match_sides(pkt_ctx &ctx) {
    const searchable_name name(field_text(ctx.app_name));
    bool has_entry = match_side(ctx, name, ctx.src_utp_id);
    if (ctx.arc_rule != nullptr) {
        JORN_DEBUG_AS("jorn_apply_arc_policy", "matched source policy: %d\n",
                      static_cast<int>(ctx.src_utp_id));
        ctx.arc_match_utp = ctx.src_utp_id;
        ctx.arc_match_src = 1;
        return has_entry;
    }
    has_entry = match_side(ctx, name, ctx.dst_utp_id);
    if (ctx.arc_rule != nullptr) {
        JORN_DEBUG_AS("jorn_apply_arc_policy", "matched destination policy: %d\n",
                      static_cast<int>(ctx.dst_utp_id));
        ctx.arc_match_utp = ctx.dst_utp_id;
        ctx.arc_match_src = 0;
    }
    return has_entry;
}

} // namespace

void jorn_apply_arc_policy(pkt_ctx *ctx) {
    const bool has_entry = jorn_settings.arc_enabled != 0 && match_sides(*ctx);
    if (ctx->arc_rule != nullptr)
        ctx->arc_action = ctx->arc_rule->deny != 0 ? ARC_ACTION_BLOCK : ARC_ACTION_QOS;
    else
        ctx->arc_action = has_entry ? ARC_ACTION_ALLOW : ARC_ACTION_NO_POLICY;
}

const arc_rule *__jorn_policy_match(const pkt_ctx *ctx, const arc_policy *policy) {
    return first_fitting_rule(*ctx, searchable_name(field_text(ctx->app_name)), *policy);
}

int __jorn_domain_match(const char *flow_name, const char *rule_domain) {
    if (flow_name == nullptr || rule_domain == nullptr)
        return 0;
    const searchable_name name(flow_name);
    return !name.text().empty() && contains_ignoring_case(name.text(), rule_domain) ? 1 : 0;
}
