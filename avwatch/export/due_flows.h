// The open flows with what collectors haven't been told of them, and when they are to be. No I/O:
// whoever calls says what time it is.
//
// Counts come as what they have grown by, so each is exported once, whoever starts anew. A view is
// a collector's: with timeouts of its own it has of each flow what is still to be told there. A
// part of a flow is due when it has gone on for the active timeout, when it has grown by nothing
// for the inactive one, and when the flow is over. The first part begins with the flow, each other
// one where the part before it ended.
//
// Bounded: FLOWS_MAX, of which those that are over go when they are taken.
#pragma once

#include "avwatch/client/records.h"
#include "avwatch/history/ledger.h"
#include "avwatch/ipfix/exported_record.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

namespace avwatch {

struct exported_flow {
    bool is_ip = false;
    exported_record::address client = {}, server = {}; // of IPv4: in the last four octets
    bool is_ipv6 = false;
    uint16_t client_port = 0, server_port = 0;
    uint8_t protocol = 0;
    uint8_t dscp_up = 0, dscp_down = 0;
    exported_record::mac_address station = {};
    uint16_t interface = 0; // as `interfaces` numbers them
    uint32_t utp = 0;
    bool is_denied = false;
    std::string reason; // of a denial, without the name that it was denied by
};

struct flow_part {
    const exported_flow &facts;
    application_id application;
    flow_counts counts = {};
    uint64_t begun_us = 0, ended_us = 0;
    uint8_t end_reason = END_ACTIVE_TIMEOUT;
    bool is_first = false; // of the flow
    bool is_last = false;
};

// All zeros for what isn't one.
exported_record::mac_address mac_address_in(const std::string &text);

template <typename Record>
flow_counts counts_in(const Record &told) {
    return {told.up.packets, told.up.bytes,       told.down.packets,
            told.down.bytes, told.dropped.denied, told.dropped.limited};
}

// A flow's counts are heard so often, or more often where timeouts are shorter.
inline constexpr uint32_t HEARD_EVERY_MS = 10'000;

class due_flows {
public:
    static constexpr size_t FLOWS_MAX = ledger::MAX_FLOWS + 16'384;
    static constexpr int64_t SILENT_MS = ledger::SILENT_MS;

    struct view {
        int64_t active_ms = 0, inactive_ms = 0;
    };
    struct namer {
        // What the flow's application is in a view, and what its interface is.
        std::function<application_id(size_t place, const std::string &application,
                                     const why_record &why)>
            application;
        std::function<uint16_t(const std::string &name)> interface;
    };
    due_flows(std::vector<view> views, namer names);

    // Where it isn't the former one, no flow goes on.
    void connected(const std::string &epoch);
    void take(const flow_record &told, const flow_counts &more, int64_t now_ms);
    void take(const count_record &told, const flow_counts &more, int64_t now_ms);
    // Of flows without sides, that were over before anything else was told.
    void take(const sum_record &told, uint64_t now_us);

    // What is due; where `all`, what there is. A view whose taker returns false gets the rest at
    // another time.
    using taker = std::function<bool(size_t place, const flow_part &part)>;
    void give(int64_t now_ms, bool all, const taker &to);

    size_t size() const { return flows_.size(); }
    uint64_t left_out() const { return left_out_; } // messages, for they were too many

private:
    struct share { // what a view isn't told yet
        flow_counts counts = {};
        uint64_t begun_us = 0;
        int64_t told_ms = 0;
        application_id application;
        bool is_told = false; // an earlier part
    };
    struct open_flow {
        exported_flow facts;
        uint64_t last_us = 0;
        int64_t heard_ms = 0, grown_ms = 0;
        uint8_t end_reason = 0; // 0: it goes on
        std::vector<share> shares;
    };

    void describe(open_flow &flow, const flow_record &told);
    void grow(open_flow &flow, const count_record &told, const flow_counts &more, int64_t now_ms);
    uint8_t due_reason(const open_flow &flow, const share &part, const view &of, int64_t now_ms,
                       bool all) const;
    bool give_share(open_flow &flow, size_t place, int64_t now_ms, bool all, const taker &to);

    const std::vector<view> views_;
    const namer names_;
    std::string epoch_;
    std::unordered_map<std::string, open_flow> flows_; // by avcore's ids
    std::vector<open_flow> sums_;
    uint64_t left_out_ = 0;
};

} // namespace avwatch
