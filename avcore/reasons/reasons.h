// Why the daemon calls a flow what it does and decides as it does, as far as avcore can tell from
// the verdict, the frame that it is about and what the flow has shown.
#pragma once

#include "avcore/feed/feeder.h"
#include "avcore/flows/flow_table.h"
#include "avcore/records/verdict_reason.h"
#include "platform/host/messages/av_messages.h"

#include <string_view>

namespace avcore {

// Whether a name is none: what has none is called after an address, and a client chooses how many
// of those it asks.
bool is_unnamed(std::string_view name);

// Of a row that has taken the verdict, or the setting.
verdict_reason reason_of(const flow_row &row, const fed_frame &frame, const av_verdict &verdict);
verdict_reason reason_of(const flow_row &row, const av_app_setting &setting);

} // namespace avcore
