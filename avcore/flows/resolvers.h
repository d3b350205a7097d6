// Whose DNS answers teach names where a gate shows the packets: those that answer a question that
// was seen, and of these what comes from beyond the clients. The configuration may say who instead,
// one among the clients too. The access point's own resolver is beyond them.
#pragma once

#include "avcore/flows/client_table.h"
#include "avcore/frames/frame.h"
#include "avcore/names/dns_answer.h"
#include "avcore/records/gate_records.h"
#include "avcore/settings/config.h"

#include <compare>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <utility>

namespace avcore {

class resolver_watch {
public:
    static constexpr size_t MAX_QUESTIONS = 16'384;
    static constexpr size_t MAX_OF_CLIENT = 512;
    static constexpr int64_t QUESTION_LIFE_US = 10'000'000;

    // `settings` outlives the watch; they may change.
    explicit resolver_watch(const config &settings) : settings_(settings) {}

    // What a frame to the port of DNS holds.
    void saw_question(const frame_facts &frame, const gate_copy &copy,
                      std::span<const uint8_t> message, int64_t time_us);

    // Whether an answer with addresses may teach. What it can't is counted.
    bool may_teach(const frame_facts &frame, const gate_copy &copy, const dns_answer &answer,
                   int64_t time_us);

    uint64_t refused() const { return refused_; }
    // What is to be said of an answer that wasn't taken, once of each kind; else empty.
    std::string take_remark() { return std::exchange(remark_, {}); }

private:
    // Of a question or of its answer.
    struct exchange {
        ip_address client;
        uint16_t client_port;
        ip_address server;
        uint16_t id;
        std::string name; // in small letters

        auto operator<=>(const exchange &) const = default;
    };
    struct nothing {};

    static exchange exchange_of(const endpoint &client, const endpoint &server, uint16_t id,
                                const std::string &name);
    bool is_resolver_among_clients(const endpoint &side) const;
    bool may_teach_at_all(const endpoint &sender, bool is_client) const;
    void refuse(const frame_facts &frame, bool unlisted, bool is_client);

    const config &settings_;
    client_table<exchange, nothing> questions_{{MAX_QUESTIONS, MAX_OF_CLIENT, QUESTION_LIFE_US}};
    uint64_t refused_ = 0;
    bool said_unasked_ = false;
    bool said_of_client_ = false;
    bool said_unlisted_ = false;
    std::string remark_;
};

} // namespace avcore
