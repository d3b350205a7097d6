// The trailer that an access point's kernel module would append to a frame.
#pragma once

#include "avcore/flows/flow_table.h"
#include "avcore/frames/frame.h"
#include "avcore/settings/client_rules.h"

namespace avcore {

// `client`: the client's.
av_pkt_trailer build_trailer(const client_rules &rules, const client_profile &client,
                             const frame_facts &frame, const flow_table::sighting &flow);

} // namespace avcore
