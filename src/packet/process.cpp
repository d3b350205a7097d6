#include "packet/process.h"

#include "classify/arc_policy.h"
#include "classify/detect.h"
#include "packet/app_visibility.h"
#include "packet/decode/flow_key.h"
#include "webfilter/decision.h"

packet_processor jorn_pkt_processor;

namespace {

// A list hit is a decision already, and so is a Wi-Fi calling tag. What the web owns is never
// judged by application, whatever became of its policy or category.
void apply_policy(pkt_ctx *ctx) {
    if (ctx->white_hit == WHITE_HIT || ctx->black_hit == BLACK_HIT)
        return;
    if (ctx->url_filter != 0)
        jorn_apply_web_policy(ctx);
    else if (ctx->wfc_priority == WFC_PRIORITY_NONE)
        jorn_apply_arc_policy(ctx);
}

} // namespace

int jorn_process_pkt(pkt_ctx *ctx, uint8_t *, const pcap_pkthdr *pkthdr, const uint8_t *bytes) {
    jorn_pkt_processor(ctx, pkthdr, bytes);
    jorn_build_flow_key(ctx);
    jorn_detect_pkt(ctx, pkthdr, bytes);
    apply_policy(ctx);
    const int result = jorn_output(ctx);
    report_app_visibility(*ctx);
    return result;
}
