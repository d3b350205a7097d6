// The verdict: what the context says about a flow, turned into the record that the kernel module
// acts on.
#include "core/log.h"
#include "core/text.h"
#include "packet/process.h"
#include "platform/psms.h"

#include <cstring>

namespace {

constexpr int IOCTL_SET_VERDICT = 8;

av_verdict default_verdict(const pkt_ctx &ctx) {
    av_verdict record = {};
    record.verdict = AV_VERDICT_ALLOW;
    record.policy_type = AV_POLICY_DEFAULT;
    memset(&record.qos, 0xFF, sizeof record.qos);
    record.qos.arc_match_src = static_cast<uint8_t>(ctx.arc_match_src);
    record.qos.arc_match_utp = ctx.arc_match_utp;
    return record;
}

void copy_lower_case(char (&to)[64], const char (&name)[65]) {
    for (size_t i = 0; i < sizeof to - 1 && name[i] != '\0'; ++i)
        to[i] = ascii_lower(name[i]);
}

} // namespace

int jorn_output(pkt_ctx *ctx) {
    av_verdict record = default_verdict(*ctx);
    JORN_DEBUG("no policy \n");
    record.default_policy = 1;
    record.app_id = ctx->app_id;

    copy_lower_case(record.app_name, ctx->app_name);
    if (record.qos.deny == 1)
        record.policy_type = AV_POLICY_DENY;
    record.flow_key = ctx->flow_key;
    record.app_cat_id = ctx->app_cat_id;
    record.match_info = ctx->match_info;
    return psms_wdl_ioctl(IOCTL_SET_VERDICT, 0, sizeof record, &record);
}
