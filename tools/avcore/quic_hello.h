// The hellos of QUIC's clients, put together from the CRYPTO frames of their Initial packets.
//
// A hello with today's keys takes two datagrams, and a browser may send it in many pieces and in
// any order. A flow's state lives until the hello is whole or one of the bounds below is met;
// anybody can send pieces that never make one.
#pragma once

#include "avcore/client_hello.h"
#include "avcore/frame.h"
#include "avcore/quic_initial.h"

#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace avcore {

// The start of a stream of CRYPTO frames, as long as a hello may be.
class crypto_pieces {
public:
    // False: it is longer than that, or says of a byte something else than an earlier piece, and
    // which of the two the server takes isn't to be known.
    bool put(uint64_t offset, byte_view piece);
    byte_view whole() const { return {bytes_.data(), whole_}; } // what has no gap before it

private:
    std::vector<uint8_t> bytes_;
    std::vector<bool> known_; // as long as `bytes_`
    size_t whole_ = 0;
};

class quic_hellos {
public:
    static constexpr size_t MAX_FLOWS = 1024; // then the one that began first is given up
    static constexpr unsigned MAX_PACKETS = 16;
    static constexpr int64_t MAX_AGE_US = 5'000'000;

    // Throws std::runtime_error.
    explicit quic_hellos(size_t max_flows = MAX_FLOWS) : max_flows_(max_flows) {}

    enum class outcome : uint8_t {
        nothing,   // no hello is being put together here
        gathering, // more is to come
        read,
        in_vain, // there is none, or none that could be read
    };
    struct sight {
        outcome what = outcome::nothing;
        std::string server_name; // of one that was read: as in client_hello
    };
    // Looks at one datagram of a flow. One that was read, or is in vain, is forgotten.
    sight look(const flow_id &flow, const endpoint &sender, std::span<const uint8_t> datagram,
               int64_t time_us);
    void forget(const flow_id &flow);

    size_t flows() const { return hellos_.size(); }

private:
    struct gathering {
        flow_id flow;
        endpoint client;
        int64_t since_us = 0;
        unsigned packets = 0;
        bool opened = false; // one of them; what follows is from it, or from a later first one
        uint32_t version = 0;
        quic_id first_id; // that the keys are from
        quic_keys keys;
        int64_t largest = -1; // packet number
        crypto_pieces pieces;
    };

    sight take_datagram(gathering &hello, byte_view datagram);
    std::optional<byte_view> open(gathering &hello, const quic_packet &packet);
    void keep(gathering &&hello);

    size_t max_flows_;
    quic_crypto crypto_;
    std::list<gathering> hellos_; // the one that began last at the back
    std::map<flow_id, std::list<gathering>::iterator> index_;
};

} // namespace avcore
