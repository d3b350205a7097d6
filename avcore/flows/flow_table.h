// The flow table: one row for both directions of a flow.
//
// Bounded: when it is full, a new flow takes the place of the one seen longest ago, whose packets
// and bytes are added to one sum of all such flows. When that one is seen again, it is a new flow.
#pragma once

#include "avcore/flows/flow_life.h"
#include "avcore/frames/frame.h"
#include "avcore/records/row_enforcement.h"
#include "avcore/records/verdict_reason.h"
#include "avcore/settings/client_rules.h"
#include "platform/host/messages/av_messages.h"

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

namespace avcore {

// What the watched flows have of a row.
struct row_watch {
    uint32_t place = 0;   // among them, from 1; 0: none
    bool is_told = false; // there is nothing to look at while the row
    uint64_t says = 0;    // says this, a digest
};

struct flow_row {
    uint32_t id = 0; // counted up from 1
    flow_id sides;
    endpoint client;
    endpoint server;
    uint16_t ether_type = 0;
    uint8_t ip_proto = 0;
    bool ipv4 = false;
    uint8_t dscp[2] = {}; // of the last frame from the client, and to it
    uint64_t packets = 0;
    uint64_t bytes = 0;   // without trailers
    uint32_t verdict = 0; // the last one's av_verdict_code; 0 = none came
    bool outdated = false;
    bool wificalling = false; // the last verdict was Wi-Fi calling's, with what follows
    uint8_t wfc_priority = 0;
    std::string wfc_fqdn;        // any bytes, as the daemon sent them
    std::string application;     // any bytes, as the daemon sent them but for stand-ins
    std::string host;            // that the client showed in a handshake; any bytes, as sent
    std::string own_name;        // by a handshake that the server took, where DPI knows no better
    bool own_name_first = false; // whoever gave the last verdict its name stands behind it
    int64_t last_us = 0;         // of the last frame's capture
    std::string server_name;     // see note_frame
    int64_t server_name_us = 0;  // when that was learnt
    verdict_reason reason;       // of the last verdict, and of the name
    flow_life life;
    std::string client_interface; // of the client's profile, as of the last frame, like
    uint32_t client_utp = 0;
    size_t client_rule = 0; // which gave it; see client_rules
    row_enforcement enforcement;
    row_watch watched;
};

struct flow_sum {
    uint64_t flows = 0;
    uint64_t packets = 0;
    uint64_t bytes = 0;
};

class flow_table {
public:
    static constexpr size_t DEFAULT_LIMIT = 65'536;

    explicit flow_table(const client_rules &rules, size_t limit = DEFAULT_LIMIT)
        : rules_(rules), limit_(limit) {}

    struct sighting {
        flow_row &row;    // valid until the next frame is counted
        bool from_client; // direction of this frame
    };
    // Counts one frame of `size` bytes in its flow, unless it is damaged.
    sighting count_frame(const frame_facts &frame, size_t size);

    // On a frame of the row with this id, fed with this trailer. Null when it has left.
    flow_row *set_verdict(uint32_t id, const av_verdict &verdict, const av_pkt_trailer &trailer);

    // On the flow with this key, of either direction. Two where both its sides are clients behind
    // a gate, none when there is none.
    std::vector<flow_row *> set_application(const av_app_setting &setting);
    uint64_t unknown() const { return unknown_; } // such settings for no flow

    // The daemon's policies changed: no verdict counts until the flow's next one.
    void outdate_verdicts();

    // In the order in which the flows appeared.
    std::vector<const flow_row *> rows() const;
    const flow_row *find(uint32_t id) const; // null when it has left
    std::vector<flow_row *> rows_where(const std::function<bool(const flow_row &)> &holds);
    const flow_sum &summed() const { return summed_; }
    const flow_sum &all() const { return all_; } // those that had to leave, too

    // Gets each row that has to leave.
    void set_on_leave(std::function<void(flow_row &&)> on_leave) {
        on_leave_ = std::move(on_leave);
    }

private:
    using row_ref = std::list<flow_row>::iterator;

    row_ref add(const flow_id &sides, const frame_facts &frame);
    void sum_up_oldest();

    const client_rules &rules_;
    size_t limit_;
    std::list<flow_row> rows_; // the one seen last at the front
    // Ordered rather than hashed: who chooses the addresses doesn't choose the cost.
    std::map<flow_id, row_ref> index_;
    std::unordered_map<uint32_t, row_ref> by_id_;
    uint32_t last_id_ = 0;
    flow_sum summed_; // the flows that had to leave
    flow_sum all_;
    uint64_t unknown_ = 0;
    std::function<void(flow_row &&)> on_leave_; // may be empty
};

} // namespace avcore
