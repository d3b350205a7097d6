// The open flows with what collectors haven't been told of them, and when they are to be. No I/O:
// whoever calls says what time it is.
//
// Counts come as what they have grown by, so each is exported once, whoever starts anew. A view is
// a collector's: with timeouts of its own it has of each flow what is still to be told there. A
// part of a flow is due when it has gone on for the active timeout, when nothing has passed for the
// inactive one, when the flow gets another name, once the history counts under the one that it has,
// and when the flow is over. The first part begins with the flow, each other one where the part
// before it ended, and behind a silence with what passes then.
//
// What is due when goes by the steady clock. Times of packets are the wall's; where that is set,
// those that are kept here are set with it.
//
// Bounded: FLOWS_MAX. Flows that are over go when all views have taken them; of those for which one
// view's taker has no room WAITING_MAX wait, and the others are left out there, so that one's
// trouble isn't another's.
#pragma once

#include "avwatch/client/records.h"
#include "avwatch/history/application_names.h"
#include "avwatch/history/ledger.h"
#include "avwatch/ipfix/exported_record.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
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

class due_flows {
public:
    static constexpr size_t WAITING_MAX = 16'384; // shared out to the views
    static constexpr size_t FLOWS_MAX = ledger::MAX_FLOWS + WAITING_MAX;
    static constexpr int64_t SILENT_MS = ledger::SILENT_MS;

    struct view {
        int64_t active_ms = 0, inactive_ms = 0;
    };
    struct namer {
        // What the flow's application is in a view, and what its interface is. The DPI engine's
        // number is 0 where it didn't name the application.
        std::function<application_id(size_t place, const application_name &name,
                                     uint64_t engine_number)>
            application;
        std::function<uint16_t(const std::string &name)> interface;
    };
    due_flows(std::vector<view> views, namer names);

    // How often a flow's counts are to be heard. That it is silent shows when it has not been heard
    // of, so that is to take half of the timeout.
    uint32_t heard_every_ms() const { return heard_every_ms_; }

    // How far the wall's clock is ahead of the steady one: to be said before all else, and again.
    void set_clock(int64_t ahead_us);
    // Where it isn't the former epoch, no flow goes on. Of a flow that goes on what it had until
    // `heard_ms` was told before; -1: never.
    void connected(const std::string &epoch, int64_t heard_ms);
    // `known`: what a new flow that comes without a name was called before.
    void take(const flow_record &told, const ledger::growth &more, int64_t now_ms,
              const application_name &known = {});
    void take(const count_record &told, const ledger::growth &more, int64_t now_ms);
    // Of flows without sides, that were over before anything else was told.
    void take(const sum_record &told, int64_t now_ms);

    // What is due; where `all`, what there is. A view whose taker returns false gets the rest at
    // another time.
    using taker = std::function<bool(size_t place, const flow_part &part)>;
    void give(int64_t now_ms, bool all, const taker &to);

    size_t size() const { return flows_.size(); }
    bool has(const std::string &id) const { return flows_.contains(id); }
    // So many have ended since the last time that the others' room is at stake.
    bool is_crowded() const { return ended_ >= WAITING_MAX / 2; }
    // Messages about too many flows, and parts that waited in vain there.
    uint64_t left_out(size_t place) const { return left_out_ + left_out_there_[place]; }

private:
    struct share { // what a view isn't told yet
        flow_counts counts = {};
        uint64_t begun_us = 0;
        int64_t begun_ms = 0;
        application_id application;
        bool is_told = false; // an earlier part
    };
    struct open_flow {
        exported_flow facts;
        uint64_t last_us = 0;
        int64_t heard_ms = 0, grown_ms = 0;
        int64_t named_ms = 0;   // until then its later name is that of all that it had
        uint8_t end_reason = 0; // 0: it goes on
        std::vector<share> shares;
    };

    uint64_t wall_us(int64_t at_ms) const;
    int64_t passed_ms(const count_record &told, int64_t now_ms) const;
    open_flow begun(const flow_record &told, const ledger::growth &more, int64_t now_ms) const;
    void name(open_flow &flow, const flow_record &told, const application_name &known,
              int64_t now_ms);
    void describe(open_flow &flow, const flow_record &told);
    void grow(open_flow &flow, const count_record &told, const ledger::growth &more,
              int64_t now_ms);
    static uint8_t due_reason(const open_flow &flow, const share &part, const view &of,
                              int64_t now_ms, bool all);
    bool give_all(open_flow &flow, int64_t now_ms, bool all, const taker &to);
    bool give_share(open_flow &flow, size_t place, int64_t now_ms, bool all, const taker &to);
    void close_part(const open_flow &flow, share &part, int64_t now_ms);

    const std::vector<view> views_;
    const uint32_t heard_every_ms_;
    const namer names_;
    std::string epoch_;
    std::optional<int64_t> ahead_us_;                  // the wall's clock
    int64_t heard_ms_ = -1;                            // by whoever told the earlier parts
    std::unordered_map<std::string, open_flow> flows_; // by avcore's ids
    std::vector<open_flow> parts_; // of sums, and of flows that have another name by now
    size_t ended_ = 0;             // since the last time
    std::vector<size_t> waiting_;  // that are over, by view
    uint64_t left_out_ = 0;
    std::vector<uint64_t> left_out_there_; // by view
};

} // namespace avwatch
