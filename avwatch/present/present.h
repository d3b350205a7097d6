// The latest of all that the watch socket tells, in memory: who looks at the present as it goes on
// looks here. A `watcher` feeds it and has it tick every second; `top` and the page read it between
// two messages. Pointers that it hands out hold until it is fed or ticks again.
//
// What flows have used is summed up as it comes: for all, for each client, each application, and
// each client's applications. A sum has what its flows have counted since they began, and those
// that ended while it was watched; it goes when it has had no flow for ten minutes. Its rates are
// of the last three seconds; those of ten minutes, second by second, are kept of all together and
// of the clients and applications that take most.
//
// Everything is bounded, whoever speaks: flows by what a gate has, texts by their bytes, sums and
// denials by their number. What is too much is left out, and counted where it is a message. Names
// are as the setting `names` has them; beyond that they are what the network said.
#pragma once

#include "avwatch/client/known_clients.h"
#include "avwatch/client/messages.h"
#include "avwatch/history/application_names.h"
#include "avwatch/present/flow_sums.h"
#include "avwatch/present/server_address.h"
#include "avwatch/present/shared_text.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace avwatch {

// What many flows have alike: how they go and what is decided of them, and by whom.
struct flow_manner {
    static constexpr uint32_t NONE = UINT32_MAX;

    shared_text protocol, interface, verdict, gate, named_by, by, side, reason;
    shared_text ended; // such a flow stays for some seconds
    uint32_t utp = 0, app_id = 0, cat_id = 0;
    uint32_t rule = NONE, profile = NONE, wificalling = NONE;
    bool outdated = false;

    bool operator==(const flow_manner &) const = default;
};
struct flow_manner_hash {
    size_t operator()(const flow_manner &manner) const;
};

// Of a FLOW what is shown, in a fraction of a flow_record's memory: there may be as many as a gate
// has, and an access point has little.
struct watched_flow {
    // A digest of avcore's id, which would take as much as half of all else.
    uint64_t number = 0;
    shared_text client_key; // as known_clients has it; the MAC address where there is one
    shared_text client, application, host;
    shared_text name, text; // of the reason
    shared<flow_manner> manner;
    server_address server;
    bool has_mac = false;
    uint16_t client_port = 0, server_port = 0;
    uint64_t begun_us = 0, last_us = 0, name_us = 0;
    traffic up, down;
    dropped_packets dropped;

    traffic_rates counted;   // when it was counted last; present::rates_of knows if that is now
    int64_t counted_ms = -1; // the monotonic clock's
    int64_t told_ms = -1;

    static std::string id_of(uint64_t number);
    const shared_text &verdict() const { return manner.value().verdict; }
    const shared_text &ended() const { return manner.value().ended; }
    bool has_ended() const { return !ended().empty(); }
    std::string id() const;     // by which `present` finds it
    flow_record record() const; // for what is shown of it in full; with that id
    flow_sums::owner owner() const { return {client_key, application}; }
};

struct denial {
    uint64_t number = 0; // of all that there were, from 1: the next one's is larger
    uint64_t us = 0;     // of one that was there before: its latest packet
    watched_flow flow;   // as it was then
};

// Something that happened to no flow: to the daemon, the gate or the policies.
struct notice {
    uint64_t number = 0; // of all that there were, from 1
    uint64_t us = 0;
    std::string what, state, interface; // an event's
};

// Who decides now, as far as somebody told.
struct deciders {
    std::string daemon; // "gone", "back"
    std::string gate;   // "deciding"; "open" or "closed" while nobody does
};

// What is looked for; what isn't given is any.
struct flow_choice {
    std::optional<std::string> client; // its key
    std::optional<std::string> application;

    bool operator==(const flow_choice &) const = default;
};

class present {
public:
    static constexpr size_t FLOWS_MAX = 65'536 + 4'096;  // the gate's, and some that have ended
    static constexpr size_t TEXTS_MAX_BYTES = 4'000'000; // of clients, and of avcore's own
    static constexpr size_t NAMES_MAX_BYTES = 6'000'000; // which anybody makes up
    static constexpr size_t DENIALS_MAX = 1'000;
    static constexpr size_t NOTICES_MAX = 200;

    // A flow is told of once in `every_ms` at most.
    present(client_aliases aliases, names_kept names, uint32_t every_ms);

    // What the watch socket tells of all flows and events; the time is the monotonic clock's.
    void connected(const greeting_record &greeting);
    void disconnected();
    void take(const flow_record &told, int64_t now_ms);
    void take(const count_record &told, int64_t now_ms);
    void take(const sum_record &told);
    void take(const event_record &told);
    void take(const gate_state &told);
    void listed(); // all that there was
    void lost(const lost_events &told) { left_out_ += told.count; }
    void take_clients(std::vector<client_record> said); // a whole answer

    // Once a second: rates are of what has come since the last tick.
    void tick(int64_t now_ms);
    uint64_t ticks() const { return ticks_; }

    bool is_told() const { return is_listed_; } // avcore tells, and has told all there was
    const known_clients &clients() const { return clients_; }

    size_t flow_count() const { return flows_.size(); } // with those that ended just now
    std::vector<const watched_flow *> flows(const flow_choice &chosen = {}) const;
    const watched_flow *flow(const std::string &id) const; // its own; null where there is none
    const watched_flow *flow(uint64_t number) const;
    static std::string id_of(const std::string &told); // of avcore's
    traffic_rates rates_of(const watched_flow &flow, int64_t now_ms) const;

    std::vector<const flow_sum *> clients_used() const;
    std::vector<const flow_sum *> applications_used() const;
    std::vector<const flow_sum *> applications_of(const std::string &client) const; // its pairs
    std::vector<const flow_sum *> clients_of(const std::string &application) const;
    // Of all where nothing is chosen; null where there is none.
    const flow_sum *sum(const flow_choice &chosen = {}) const;
    // COURSE_SECONDS rates, the latest last, UNKNOWN_RATES before it was kept; empty of who doesn't
    // take enough, and of pairs.
    std::vector<traffic_rates> course(const flow_choice &chosen = {}) const;

    const std::deque<denial> &denials() const { return denials_; } // the latest last
    const std::deque<notice> &notices() const { return notices_; } // the latest last
    const deciders &who_decides() const { return deciders_; }

    uint64_t left_out() const { return left_out_; } // messages: of what is too much, or lost

private:
    watched_flow watched(const flow_record &shown);
    flow_manner manner_of(const flow_record &shown);
    bool make_room();
    void will_forget(uint64_t number, int64_t now_ms);
    void count(watched_flow &flow, const count_record &told, int64_t now_ms);
    void put(watched_flow &flow, watched_flow next, bool was_open);
    void forget_ended(int64_t now_ms);
    void forget_untold_since(int64_t since_ms);
    void add_denial(const watched_flow &flow, uint64_t us);
    void add_notice(const event_record &told);
    void add_standing_denials();
    std::optional<flow_sums::owner> owner_of(const flow_choice &chosen) const;

    const client_aliases aliases_;
    const names_kept names_;
    const uint32_t every_ms_;
    // These stand before all that has texts of them.
    text_pool texts_{TEXTS_MAX_BYTES};
    text_pool given_names_{NAMES_MAX_BYTES};
    value_pool<flow_manner, flow_manner_hash> manners_;
    known_clients clients_;
    std::unordered_map<uint64_t, watched_flow> flows_; // by their numbers
    std::deque<std::pair<int64_t, uint64_t>> ended_;   // flows by when they go
    flow_sums sums_;
    std::deque<denial> denials_;
    uint64_t denials_made_ = 0;
    std::deque<notice> notices_;
    uint64_t notices_made_ = 0;
    deciders deciders_;
    uint64_t gate_changed_ticks_ = 0; // when an event said that it has
    std::string epoch_;               // in which flows keep their ids
    bool is_listed_ = false;
    int64_t listed_since_ms_ = -1; // when the first flow of a listing came
    int64_t ticked_ms_ = -1;
    uint64_t ticks_ = 0;
    uint64_t left_out_ = 0;
};

} // namespace avwatch
