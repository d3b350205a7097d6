// Detection: what flow is this packet of? Fills the names, ids and links of the packet context, one
// step after the other; a step that decided ends the pipeline.
//
// A step that finds app_source set leaves app_name to whoever came first and puts its own finding
// into orig_app.
#pragma once

#include "packet/records/context.h"

#include <cstdint>
#include <pcap/pcap.h>

inline constexpr int JORN_DETECT_NO_MATCH = 0;
inline constexpr int JORN_DETECT_MATCH = 1;

// Runs the pipeline for one packet of `pkthdr->caplen` captured bytes. Returns the result of the
// step that decided, or of the last one.
int jorn_detect_pkt(pkt_ctx *ctx, const pcap_pkthdr *pkthdr, const uint8_t *bytes);

// The step that the kernel's trailer drives: reads the trailer into the context, lets the
// administrator's definitions and port services name the flow, which decides nothing, and goes
// through the inspections that the trailer asks for: Wi-Fi calling, URL filtering, the DPI engine's
// result. Returns 1 when it decided the packet, else 0.
int jorn_detect_pkt_utp(pkt_ctx *ctx, const uint8_t *bytes, uint32_t captured);

// The last resort: names the flow "SOURCE DESTINATION:PORT" after its addresses. Returns 1 when it
// wrote app_name; app_source stays, for nobody knows what the flow is.
int jorn_detect_pkt_flow_name(pkt_ctx *ctx);
