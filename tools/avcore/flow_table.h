// The flow table: one row for both directions of a flow, in the order in which the flows appeared.
//
// Bounded: when it is full, the frames of further flows are still fed and judged, but get no row
// and are only counted.
#pragma once

#include "avcore/client_rules.h"
#include "avcore/frame.h"

#include <cstdint>
#include <deque>
#include <map>
#include <string>

namespace avcore {

struct flow_row {
    uint32_t id = 0; // from 1
    endpoint client;
    endpoint server;
    uint16_t ether_type = 0;
    uint8_t ip_proto = 0;
    bool ipv4 = false;
    uint64_t packets = 0;
    uint64_t bytes = 0;   // without trailers
    uint32_t verdict = 0; // the last one's av_verdict_code; 0 = none came
    bool outdated = false;
    std::string application; // any bytes, as the daemon sent them
    std::string host;        // that the client showed in a handshake; any bytes, as sent
};

class flow_table {
public:
    static constexpr size_t DEFAULT_LIMIT = 65'536;

    explicit flow_table(const client_rules &rules, size_t limit = DEFAULT_LIMIT)
        : rules_(rules), limit_(limit) {}

    struct sighting {
        flow_row *row;    // null when the table is full; valid as long as the table
        bool from_client; // direction of this frame
    };
    // Counts one frame of `size` bytes in its flow.
    sighting count_frame(const frame_facts &frame, size_t size);

    void set_verdict(flow_row &row, const av_verdict &verdict);

    // The daemon's policies changed: no verdict counts until the flow's next one.
    void outdate_verdicts();

    const std::deque<flow_row> &rows() const { return rows_; }
    uint64_t frames_without_row() const { return frames_without_row_; }

private:
    const client_rules &rules_;
    size_t limit_;
    std::deque<flow_row> rows_;
    // Ordered rather than hashed: who chooses the addresses doesn't choose the cost.
    std::map<flow_id, flow_row *> index_;
    uint64_t frames_without_row_ = 0;
};

} // namespace avcore
