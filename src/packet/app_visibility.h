// The app-visibility line: one line a packet to the platform's syslog stream, for flows whose ARC
// policy asks for it.
#pragma once

#include "packet/records/context.h"

// Writes the line when the context's ARC policy has its log flag set. A failed write isn't noticed.
void report_app_visibility(const pkt_ctx &ctx);
