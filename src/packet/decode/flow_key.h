// The kernel's flow key of a decoded packet.
#pragma once

#include "packet/records/context.h"

// Zeroes the context's flow key and rebuilds it from the decoded header fields.
void jorn_build_flow_key(pkt_ctx *ctx);
