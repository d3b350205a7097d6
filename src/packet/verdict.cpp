// The verdict: what the context says about a flow, turned into the record that the kernel module
// acts on.
#include "control/tables/arc_tables.h"
#include "core/base/log.h"
#include "core/base/record_bytes.h"
#include "core/state/state.h"
#include "core/state/stats.h"
#include "core/text/text.h"
#include "packet/process.h"
#include "platform/psms.h"
#include "wificalling/records/wificalling.h"

#include <cstring>

namespace {

av_verdict default_verdict(const pkt_ctx &ctx) {
    av_verdict record;
    zero_record(record);
    record.verdict = AV_VERDICT_ALLOW;
    record.policy_type = AV_POLICY_DEFAULT;
    memset(&record.qos, 0xFF, sizeof record.qos);
    record.qos.arc_match_src = static_cast<uint8_t>(ctx.arc_match_src);
    record.qos.arc_match_utp = ctx.arc_match_utp;
    return record;
}

void deny(av_verdict &record) {
    record.verdict = AV_VERDICT_DENY;
    record.qos.deny = 1;
}

// Marking and classification first: rate limits, where there are any, name the verdict.
void apply_arc_rule(const arc_rule &rule, av_verdict &record) {
    av_qos &qos = record.qos;
    if (ARC_QOS_MARKING.of(rule.qos) != 0) {
        record.verdict = AV_VERDICT_QOS;
        record.policy_type = AV_POLICY_QOS;
        qos.mark_pri = ARC_QOS_MARK_KIND.of(rule.qos);
        qos.mark_type = ARC_QOS_MARK_TYPE.of(rule.qos);
    }
    if (ARC_QOS_CLASSIFICATION.of(rule.qos) != 0) {
        record.verdict = AV_VERDICT_QOS;
        record.policy_type = AV_POLICY_QOS;
        qos.classify = 1;
        qos.classify_type = ARC_QOS_CLASSIFY_TYPE.of(rule.qos);
    }
    if (rule.rate_up != 0 || rule.rate_down != 0) {
        record.verdict = AV_VERDICT_RATE_LIMIT;
        record.policy_type = AV_POLICY_RATE_LIMIT;
        qos.ratelimit_up = rule.rate_up;
        qos.ratelimit_down = rule.rate_down;
    }
}

void apply_arc_outcome(const pkt_ctx &ctx, av_verdict &record) {
    constexpr char FUNCTION[] = "jorn_output";
    if (ctx.arc_action == ARC_ACTION_BLOCK) {
        deny(record);
        jorn_stats_inc(STATS_DENIED);
        JORN_DEBUG_AS(FUNCTION, "the flow would be blocked, port 0:%d, port 1: %d, domain: %s\n",
                      ctx.src_port, ctx.dst_port, printable_text(ctx.app_name).c_str());
        return;
    }
    JORN_DEBUG_AS(FUNCTION, "the flow would be allowed, port 0:%d, port 1: %d, domain: %s\n",
                  ctx.src_port, ctx.dst_port, printable_text(ctx.app_name).c_str());
    if (ctx.arc_action != ARC_ACTION_QOS) {
        JORN_DEBUG_AS(FUNCTION, "no policy \n");
        return;
    }
    JORN_DEBUG_AS(FUNCTION, "applying arc policy\n");
    if (ctx.arc_rule != nullptr)
        apply_arc_rule(*ctx.arc_rule, record);
}

// Whether the daemon's decision stands; an unreachable URL server leaves it to the application
// policy of a UTP that has one.
uint32_t default_policy_of(const pkt_ctx &ctx) {
    constexpr char FUNCTION[] = "jorn_output";
    if (jorn_state.reachable_flag != 1)
        return 1;
    if (jorn_check_arc_enabled(&ctx) == 1) {
        JORN_DEBUG_AS(FUNCTION, "Domain name default set policy 0 %s domain %s app\n",
                      printable_text(ctx.web_domain).c_str(), printable_text(ctx.app_name).c_str());
        return 0;
    }
    JORN_DEBUG_AS(FUNCTION, "Domain name default set policy 1 %s domaini %s app\n",
                  printable_text(ctx.web_domain).c_str(), printable_text(ctx.app_name).c_str());
    return 1;
}

void decide_by_web(av_verdict &record, av_verdict_code code, uint8_t denied) {
    record.verdict = code;
    record.default_policy = 1;
    record.qos.url_decided = 1;
    record.qos.deny = denied;
}

// A flow of the web's goes by the domain that was asked for, even where none was.
void apply_web_outcome(pkt_ctx &ctx, av_verdict &record) {
    constexpr char FUNCTION[] = "jorn_output";
    if (ctx.web_action == WEB_ACTION_BLOCK) {
        decide_by_web(record, AV_VERDICT_DENY, 1);
    } else {
        record.qos.url_decided = 0;
        record.qos.deny = 0;
        record.default_policy = default_policy_of(ctx);
    }
    if (ctx.black_hit == BLACK_HIT) {
        decide_by_web(record, AV_VERDICT_DENY, 1);
        JORN_DEBUG_AS(FUNCTION, "Domain name comes under black list BLOCKING %s domain\n",
                      printable_text(ctx.web_domain).c_str());
    }
    if (ctx.white_hit == WHITE_HIT) {
        decide_by_web(record, AV_VERDICT_WHITE_LIST, 0);
        JORN_DEBUG_AS(FUNCTION, "Domain name comes under white list Allowing %s domain\n",
                      printable_text(ctx.web_domain).c_str());
    }
    memcpy(ctx.app_name, ctx.web_domain, sizeof ctx.app_name);
    record.wificalling_f = AV_DECIDED_BY_WEB;
}

// The carrier's priority marks and classes the flow, which gets the carrier's name.
void apply_wificalling_tag(pkt_ctx &ctx, av_verdict &record) {
    constexpr char FUNCTION[] = "jorn_output";
    const auto &carrier = ctx.wfc_refs[ctx.wfc_ref_index]->pname;
    record.qos.mark_pri = AV_MARK_DOT1P_AND_DSCP;
    record.qos.mark_type = ctx.wfc_priority;
    record.qos.classify = 1;
    record.qos.classify_type = ctx.wfc_priority;
    copy_text(ctx.app_name, carrier);
    copy_text(record.wfc_fqdn, ctx.wfc_fqdn);
    JORN_INFO_AS(FUNCTION, "PNode Pname = %s, default req.wificalling_f = %d\n",
                 printable_text(carrier).c_str(), 0);
    JORN_INFO_AS(FUNCTION,
                 "Tagged WiFi calling priority %d for carrier %s. on refindex  %d, with fqdn %s\n",
                 ctx.wfc_priority, printable_text(carrier).c_str(), ctx.wfc_ref_index,
                 printable_text(ctx.wfc_fqdn).c_str());
    record.wificalling_f = AV_DECIDED_BY_WIFICALLING;
}

} // namespace

int jorn_check_arc_enabled(const pkt_ctx *ctx) {
    if (jorn_settings.arc_enabled == 0)
        return 0;
    const auto src_utp_id = static_cast<int>(ctx->src_utp_id);
    const auto dst_utp_id = static_cast<int>(ctx->dst_utp_id);
    JORN_DEBUG("check utp id for %d src, %d dst domain: %s\n", src_utp_id, dst_utp_id,
               printable_text(ctx->app_name).c_str());
    if (utp_lookup(jorn_state.arc_utp_table, ctx->src_utp_id) != nullptr) {
        JORN_DEBUG("got utp id for %d src domain: %s\n", src_utp_id,
                   printable_text(ctx->app_name).c_str());
        return 1;
    }
    if (utp_lookup(jorn_state.arc_utp_table, ctx->dst_utp_id) != nullptr) {
        JORN_DEBUG("got utp id for %d dst domain: %s\n", dst_utp_id,
                   printable_text(ctx->app_name).c_str());
        return 1;
    }
    return 0;
}

int jorn_output(pkt_ctx *ctx) {
    av_verdict record = default_verdict(*ctx);
    apply_arc_outcome(*ctx, record);
    if (ctx->url_filter != 0) {
        apply_web_outcome(*ctx, record);
    } else {
        record.default_policy = 1;
        if (ctx->wfc_priority != WFC_PRIORITY_NONE)
            apply_wificalling_tag(*ctx, record);
        else
            record.app_id = ctx->app_id;
    }

    copy_lower_case(record.app_name, field_text(ctx->app_name));
    if (record.qos.deny == 1)
        record.policy_type = AV_POLICY_DENY;
    record.flow_key = ctx->flow_key;
    record.app_cat_id = ctx->app_cat_id;
    record.match_info = ctx->match_info;
    return psms_wdl_ioctl(AV_IOCTL_SET_VERDICT, 0, sizeof record, &record);
}
