// Op 33 of the AV channel: the flows of a station that roams, with the names of their servers.
#pragma once

#include "avcore/base/messages.h"
#include "avcore/flows/flow_table.h"
#include "avcore/names/dns_names.h"

#include <cstdint>

namespace avcore {

// To be told of each frame of `row`, before what it teaches is learnt. The row keeps the name that
// the server's address had when the flow began, for a name's time ends before a long connection
// does.
void note_frame(flow_row &row, const dns_names &names, int64_t time_us);

// The rows of the station's MAC address that carried something in the five minutes before `now_us`
// and have a name, the latest first.
std::vector<std::byte> answer_roam_flows(const flow_table &flows, int64_t now_us,
                                         const question &asked);

} // namespace avcore
