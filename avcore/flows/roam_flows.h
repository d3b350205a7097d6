// The flows of a station that roams, with the names of their servers: op 33 of the AV channel where
// it leaves, and what becomes of flows for which the names come late where it arrives.
#pragma once

#include "avcore/base/messages.h"
#include "avcore/base/monotonic_clock.h"
#include "avcore/flows/flow_table.h"
#include "avcore/names/dns_names.h"

#include <cstdint>
#include <set>
#include <span>
#include <string_view>
#include <vector>

namespace avcore {

// To be told of each frame of `row`, before what it teaches is learnt. The row keeps the name that
// the server's address had when the flow began, for a name's time ends before a long connection
// does.
void note_frame(flow_row &row, const dns_names &names, int64_t time_us);

// The rows of the station's MAC address that carried something in the five minutes before `now_us`
// and have a name, the latest first.
std::vector<std::byte> answer_roam_flows(const flow_table &flows, int64_t now_us,
                                         const question &asked);

// The servers whose names the bus has brought to the daemon. Of a flow that was decided before, no
// packet goes to the daemon any more, so it has to be asked about again, once the daemon has read
// its message. That is after a second: who stands still for longer is taken for gone, and all flows
// are judged anew when he is back.
class named_servers {
public:
    static constexpr size_t MAX = 2'048; // further ones are left out
    static constexpr int64_t DELAY_MS = 1'000;

    void add(std::string_view topic, std::span<const std::byte> payload, int64_t now_ms);
    int64_t due_ms() const { return due_ms_; }
    // The flows with these servers that have no name, or a worse one than theirs.
    std::vector<flow_row *> take_flows(flow_table &flows);

private:
    std::set<uint32_t> addresses_be_;
    int64_t due_ms_ = NEVER_MS;
};

} // namespace avcore
