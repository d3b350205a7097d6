// Detection: what flow is this packet of? Fills the names, ids and links of the packet context, one
// step after the other; a step that decided ends the pipeline.
#pragma once

#include "packet/records.h"

#include <cstdint>
#include <pcap/pcap.h>

inline constexpr int JORN_DETECT_NO_MATCH = 0;
inline constexpr int JORN_DETECT_MATCH = 1;

// Runs the pipeline for one packet of `pkthdr->caplen` captured bytes. Returns the result of the
// step that decided, or of the last one.
int jorn_detect_pkt(pkt_ctx *ctx, const pcap_pkthdr *pkthdr, const uint8_t *bytes);

// The step that the kernel's trailer drives: reads the trailer into the context. Returns 1 when it
// decided the packet, else 0.
int jorn_detect_pkt_utp(pkt_ctx *ctx, const uint8_t *bytes, uint32_t captured);
