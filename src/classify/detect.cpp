#include "classify/detect.h"

#include "packet/trailer.h"

int jorn_detect_pkt(pkt_ctx *ctx, const pcap_pkthdr *pkthdr, const uint8_t *bytes) {
    return jorn_detect_pkt_utp(ctx, bytes, pkthdr->caplen);
}

int jorn_detect_pkt_utp(pkt_ctx *ctx, const uint8_t *bytes, uint32_t captured) {
    av_pkt_trailer trailer;
    read_trailer(*ctx, bytes, captured, trailer);
    return JORN_DETECT_NO_MATCH;
}
