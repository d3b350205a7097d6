#include "packet/process.h"

#include "classify/detect.h"
#include "packet/flow_key.h"

packet_processor jorn_pkt_processor;

int jorn_process_pkt(pkt_ctx *ctx, uint8_t *, const pcap_pkthdr *pkthdr, const uint8_t *bytes) {
    jorn_pkt_processor(ctx, pkthdr, bytes);
    jorn_build_flow_key(ctx);
    jorn_detect_pkt(ctx, pkthdr, bytes);
    return jorn_output(ctx);
}
