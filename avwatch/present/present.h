// The latest of all that the watch socket tells, in memory: who looks at the present as it goes on
// looks here. A `watcher` feeds it and has it tick every second; `top` and the page read it between
// two messages. Pointers and references that it hands out hold until it is fed or ticks again.
//
// What flows have used is summed up as it comes: for all, for each client, each application, and
// each client's applications. A sum has what its flows have counted since they began, and those
// that ended while it was watched; it goes when it has had no flow for ten minutes. Its rates are
// of the last seconds; those of ten minutes, second by second, are kept of all together and of the
// clients and applications that take most.
//
// Everything is bounded, whoever speaks: flows by what a gate has, texts by their bytes, sums and
// denials by their number. What is too much is left out and counted. Names are as the setting
// `names` has them; beyond that they are what the network said.
#pragma once

#include "avwatch/client/known_clients.h"
#include "avwatch/client/messages.h"
#include "avwatch/history/application_names.h"
#include "avwatch/present/shared_text.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace avwatch {

inline constexpr size_t COURSE_SECONDS = 600;

struct traffic_rates { // bytes a second
    float up = 0, down = 0;

    float both() const { return up + down; }
};
// A second in which nobody told.
inline constexpr traffic_rates UNKNOWN_RATES = {-1, -1};

// Of a FLOW what is shown, in a third of a flow_record's memory.
struct watched_flow {
    std::string id;
    shared_text client_key; // as known_clients has it
    shared_text client, client_mac, server, protocol, interface, application, host, verdict, gate;
    shared_text ended; // such a flow stays for some seconds
    shared_text named_by, name, by, side, reason, text;
    uint16_t client_port = 0, server_port = 0;
    bool outdated = false;
    std::optional<uint32_t> utp, rule, profile, wificalling, app_id, cat_id;
    uint64_t begun_us = 0, last_us = 0, name_us = 0;
    traffic up, down;
    dropped_packets dropped;

    traffic_rates counted;  // when it was counted last; rates_of() knows whether that is now
    int64_t counted_ms = 0; // the monotonic clock's
    int64_t told_ms = 0;

    flow_record record() const; // for what is shown of it in full
};

enum class sum_of_flows : uint8_t { all, client, application, client_application };

struct flow_sum {
    sum_of_flows kind = sum_of_flows::all;
    shared_text client;      // its key; of a sum of all clients empty
    shared_text application; // empty is a flow's without a name, or of a sum of all applications
    uint64_t flows = 0;      // that are open
    uint64_t pairs = 0;      // a client's applications, an application's clients
    traffic up, down;
    dropped_packets dropped;
    uint64_t last_us = 0;
    traffic_rates now;
};

struct denial {
    uint64_t number = 0; // of all that there were, from 1: the next one's is larger
    uint64_t us = 0;
    watched_flow flow; // as it was then
};

// What is looked for; what isn't given is any.
struct flow_choice {
    std::optional<std::string> client; // its key
    std::optional<std::string> application;
};

class present {
public:
    static constexpr size_t FLOWS_MAX = 65'536 + 4'096; // the gate's, and some that have ended
    static constexpr size_t SUMS_MAX = 32'768;
    static constexpr size_t TEXTS_MAX_BYTES = 16'000'000;
    static constexpr size_t COURSES_MAX = 256;
    static constexpr size_t DENIALS_MAX = 1'000;

    // A flow comes every `every_ms` at most.
    present(client_aliases aliases, names_kept names, uint32_t every_ms);
    ~present();

    // What the watch socket tells of all flows and events; the time is the monotonic clock's.
    void connected(const greeting_record &greeting);
    void disconnected();
    void take(const flow_record &told, int64_t now_ms);
    void take(const count_record &told, int64_t now_ms);
    void take(const sum_record &told);
    void take(const event_record &told, int64_t now_ms);
    void listed(); // all that there was
    void lost(const lost_events &told) { lost_events_ += told.count; }
    void take_clients(std::vector<client_record> said); // a whole answer

    // Once a second: rates are those of the time since the last tick.
    void tick(int64_t now_ms);
    uint64_t ticks() const { return ticks_; }

    bool is_told() const { return is_listed_; } // avcore tells, and has told all there was
    const known_clients &clients() const { return clients_; }

    size_t flow_count() const { return flows_.size(); }
    std::vector<const watched_flow *> flows(const flow_choice &chosen = {}) const;
    const watched_flow *flow(const std::string &id) const; // null where there is none
    traffic_rates rates_of(const watched_flow &flow, int64_t now_ms) const;

    const flow_sum &all() const;
    std::vector<const flow_sum *> clients_used() const;
    std::vector<const flow_sum *> applications_used() const;
    std::vector<const flow_sum *> applications_of(const std::string &client) const;
    std::vector<const flow_sum *> clients_of(const std::string &application) const;
    // Null where there is none, or where nothing is given of both.
    const flow_sum *sum(const flow_choice &chosen) const;

    // COURSE_SECONDS rates, the latest last, before the first tick UNKNOWN_RATES; none of who
    // doesn't take enough, and of pairs.
    std::vector<traffic_rates> course(const flow_choice &chosen) const;

    const std::deque<denial> &denials() const { return denials_; } // the latest last

    uint64_t lost_events() const { return lost_events_; }
    uint64_t left_out() const { return left_out_; } // messages of flows that are too many

private:
    struct kept_sum;
    struct sum_key {
        sum_of_flows kind;
        shared_text client, application;
        bool operator==(const sum_key &) const = default;
    };
    struct sum_hash {
        size_t operator()(const sum_key &key) const;
    };
    struct growth {
        traffic up, down;
        dropped_packets dropped;
    };
    using sum_keys = std::array<sum_key, 4>;

    static sum_keys keys_of(const shared_text &client, const shared_text &application);
    sum_key key_of(const flow_choice &chosen) const;
    kept_sum *sum_at(const sum_key &key);
    const kept_sum *find_sum(const sum_key &key) const;
    std::vector<const flow_sum *> sums(sum_of_flows kind, const shared_text *client,
                                       const shared_text *application) const;
    void grow(const shared_text &client, const shared_text &application, const growth &more,
              uint64_t last_us);
    void count_flows(const watched_flow &flow, int change);
    void move(const watched_flow &flow, const shared_text &client, const shared_text &application);
    bool make_room();
    watched_flow watched(const flow_record &told);
    void count(watched_flow &flow, const count_record &told, int64_t now_ms);
    void close(watched_flow &flow, int64_t now_ms);
    void forget_ended(int64_t now_ms);
    void forget(const std::string &id);
    void forget_untold(int64_t before_ms);
    void forget_sums();
    void deny(const flow_record &told, uint64_t us);
    void choose_courses();

    const names_kept names_;
    const uint32_t every_ms_;
    text_pool texts_{TEXTS_MAX_BYTES}; // before all that has texts of it
    known_clients clients_;
    client_aliases aliases_;
    std::unordered_map<std::string, watched_flow> flows_;
    std::deque<std::pair<int64_t, std::string>> ended_; // when each goes
    std::unordered_map<sum_key, std::unique_ptr<kept_sum>, sum_hash> sums_;
    std::deque<denial> denials_;
    uint64_t denials_made_ = 0;
    std::string epoch_; // in which flows keep their ids
    bool is_listed_ = false;
    int64_t listing_since_ms_ = -1; // the first message since the connection
    int64_t ticked_ms_ = -1;
    uint64_t ticks_ = 0;
    uint64_t lost_events_ = 0;
    uint64_t left_out_ = 0;
};

} // namespace avwatch
