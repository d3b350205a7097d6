// The chain of one packet: decode, flow key, detection, policy, verdict. The order is fixed here
// and nowhere else.
#pragma once

#include "packet/records/context.h"

#include <cstdint>
#include <pcap/pcap.h>

// Turns captured bytes into header fields; one per link type.
using packet_processor = int (*)(pkt_ctx *ctx, const pcap_pkthdr *pkthdr, const uint8_t *bytes);

// The processor that the link type chose; none before the capture is open.
extern packet_processor jorn_pkt_processor;

// Runs one captured packet through the chain. Returns the result of handing over its verdict, 0 =
// delivered.
int jorn_process_pkt(pkt_ctx *ctx, uint8_t *user, const pcap_pkthdr *pkthdr, const uint8_t *bytes);

// Whether ARC is enabled and the source or the destination UTP id names a UTP in use. Returns 1 or
// 0.
int jorn_check_arc_enabled(const pkt_ctx *ctx);

// Builds the verdict record from the context and hands it to the kernel module. Returns the ioctl's
// result.
int jorn_output(pkt_ctx *ctx);
