#include "packet/capture.h"

#include "core/base/flags.h"
#include "core/base/log.h"
#include "core/state/stats.h"
#include "core/text/text.h"
#include "packet/decode/decode.h"
#include "packet/process.h"

#include <cstdio>

int jorn_capture_open(capture_context *capture_ctx) {
    copy_text(capture_ctx->device, field_text(jorn_settings.ifname));
    capture_ctx->snaplen = 65535;
    capture_ctx->promisc = 1;
    capture_ctx->timeout_ms = -1;
    capture_ctx->handle = pcap_open_live(
        capture_ctx->device, static_cast<int>(capture_ctx->snaplen),
        static_cast<int>(capture_ctx->promisc), capture_ctx->timeout_ms, capture_ctx->errbuf);
    if (capture_ctx->handle == nullptr) {
        fprintf(stderr, "Could not open device \"%s\": %s\n", capture_ctx->device,
                capture_ctx->errbuf);
        return CAPTURE_ERR_OPEN;
    }
    if (pcap_setnonblock(capture_ctx->handle, 1, capture_ctx->errbuf) == -1) {
        fprintf(stderr, "Could not set device \"%s\" to non-blocking: %s\n", capture_ctx->device,
                capture_ctx->errbuf);
        return CAPTURE_ERR_OPEN;
    }
    return 0;
}

int jorn_set_pkt_processor(capture_context *capture_ctx) {
    const int link_type =
        capture_ctx->handle != nullptr ? pcap_datalink(capture_ctx->handle) : DLT_NULL;
    if (link_type != DLT_EN10MB) {
        JORN_ERROR("the datalink layer type is %d, not ethernet!!\n", link_type);
        return CAPTURE_ERR_LINK_TYPE;
    }
    jorn_pkt_processor = jorn_decode_eth_pkt;
    return 0;
}

void jorn_pkt_callback(uint8_t *user, const pcap_pkthdr *pkthdr, const uint8_t *bytes) {
    pkt_ctx ctx = {};
    ctx.wfc_priority = WFC_PRIORITY_NONE;
    ++pkt_count;
    JORN_DEBUG("\n PKT %d \n", static_cast<int>(pkt_count));
    jorn_stats_inc(STATS_RECEIVED);
    if (jorn_process_pkt(&ctx, user, pkthdr, bytes) != 0)
        JORN_ERROR("PKT %d SET failed\n", static_cast<int>(pkt_count));
}
