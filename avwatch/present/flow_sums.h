// What flows have used, summed up as it comes: of all, of each client, each application, and each
// client's applications; with the rates of now, and those of ten minutes of who takes most.
#pragma once

#include "avwatch/client/records.h"
#include "avwatch/present/shared_text.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

namespace avwatch {

inline constexpr size_t COURSE_SECONDS = 600;

struct traffic_rates { // bytes a second
    float up = 0, down = 0;

    float both() const { return up + down; }
    bool operator==(const traffic_rates &) const = default;
};
// Of a second in which nobody told.
inline constexpr traffic_rates UNKNOWN_RATES = {-1, -1};

enum class sum_kind : uint8_t { all, client, application, client_application };

struct flow_sum {
    sum_kind kind = sum_kind::all;
    shared_text client;      // its key; empty where all clients are meant
    shared_text application; // empty where all are meant, and of flows without a name
    uint64_t flows = 0;      // that are open
    uint64_t pairs = 0;      // a client's applications, an application's clients
    traffic up, down;
    dropped_packets dropped;
    uint64_t last_us = 0;
    traffic_rates now;
};

struct flow_counts_growth {
    traffic up, down;
    dropped_packets dropped;
};

class flow_sums {
public:
    static constexpr size_t SUMS_MAX = 20'480;
    static constexpr size_t COURSES_MAX = 256;

    // Whose flows, and of which application.
    struct owner {
        shared_text client, application;
        bool operator==(const owner &) const = default;
    };

    flow_sums();
    ~flow_sums();

    void grow(const owner &whose, const flow_counts_growth &more, uint64_t last_us, bool is_now);
    void open_flow(const owner &whose);
    void close_flow(const owner &whose);
    // A flow, which is open, has another owner now, with all that it has counted.
    void move_flow(const owner &from, const owner &to, const flow_counts_growth &counted,
                   uint64_t last_us);

    // What has grown since the last one, over so many milliseconds; without anybody who tells, its
    // seconds are unknown.
    void tick(int64_t elapsed_ms, bool is_told);

    const flow_sum *find(sum_kind kind, const owner &whose) const; // null where there is none
    // Those that have a flow, or had one lately: of a kind, and of this owner's where one is given.
    std::vector<const flow_sum *> of(sum_kind kind, const shared_text *client = nullptr,
                                     const shared_text *application = nullptr) const;
    // The latest last; empty where none is kept.
    std::vector<traffic_rates> course(const flow_sum &sum) const;

private:
    struct kept_sum;
    struct key {
        sum_kind kind;
        owner whose;
        bool operator==(const key &) const = default;
    };
    struct key_hash {
        size_t operator()(const key &hashed) const {
            return (hashed.whose.client.hash() * 31 + hashed.whose.application.hash()) * 31 +
                   static_cast<size_t>(hashed.kind);
        }
    };

    static std::array<key, 4> keys_of(const owner &whose);
    kept_sum *made(const key &wanted); // null where they are too many
    kept_sum *kept(const key &wanted) const;
    void add_pair(const owner &whose, int more);
    void choose_courses();
    void give_course(kept_sum &sum);
    void forget_idle(int64_t idle_ms_max);

    std::unordered_map<key, std::unique_ptr<kept_sum>, key_hash> sums_;
    size_t courses_ = 0;
    size_t place_ = 0; // of the present second in all courses
    uint64_t ticks_ = 0;
    bool is_full_ = false;
};

} // namespace avwatch
