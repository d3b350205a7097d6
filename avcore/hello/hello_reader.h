// The hellos of clients, put together from the packets that bring them: of TLS and HTTP from the
// segments of TCP, of QUIC from the CRYPTO frames of Initial packets.
//
// A hello with today's keys takes two packets, and who sends it may cut it anywhere and send the
// pieces in any order. A flow's state lives until the hello is whole or one of the bounds below is
// met; anybody can send pieces that never make one.
#pragma once

#include "avcore/frames/frame.h"
#include "avcore/hello/handshake.h"
#include "avcore/hello/hello_pieces.h"
#include "avcore/hello/quic_initial.h"

#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <span>
#include <string>

namespace avcore {

class hello_reader {
public:
    static constexpr size_t MAX_FLOWS = 1024;   // then the one that began first is given up
    static constexpr unsigned MAX_PACKETS = 16; // Initial ones; segments with something new
    static constexpr int64_t MAX_AGE_US = 5'000'000;

    // Throws std::runtime_error.
    explicit hello_reader(size_t max_flows = MAX_FLOWS) : max_flows_(max_flows) {}

    enum class outcome : uint8_t {
        nothing,   // no hello is being put together here
        gathering, // more is to come
        read,
        in_vain, // there is none, or none that could be read
    };
    struct sight {
        outcome what = outcome::nothing;
        std::string host = {}; // of one that was read; of HTTP with its port
        handshake in = handshake::none;
    };
    // Looks at what one packet of a flow holds. A hello that was read, or is in vain, is forgotten.
    sight look_at_datagram(const flow_id &flow, const endpoint &sender,
                           std::span<const uint8_t> datagram, int64_t time_us);
    // `offset`: of the segment's first byte from the stream's beginning.
    sight look_at_segment(const flow_id &flow, const endpoint &sender, int32_t offset,
                          std::span<const uint8_t> data, int64_t time_us);
    void forget(const flow_id &flow);

    size_t flows() const { return hellos_.size(); }

private:
    struct gathering {
        flow_id flow;
        endpoint client;
        int64_t since_us = 0;
        unsigned packets = 0;
        hello_pieces pieces;
        bool opened = false; // a packet of QUIC; what follows is from it, or from a later first one
        uint32_t version = 0;
        quic_id first_id; // that the keys are from
        quic_keys keys;
        int64_t largest = -1; // packet number
    };

    template <typename take_function>
    sight look(const flow_id &flow, const endpoint &sender, int64_t time_us, take_function take);
    sight take_datagram(gathering &hello, byte_view datagram);
    static sight take_segment(gathering &hello, int32_t offset, byte_view data);
    std::optional<byte_view> open(gathering &hello, const quic_packet &packet);
    void keep(gathering &&hello);

    size_t max_flows_;
    quic_crypto crypto_;
    std::list<gathering> hellos_; // the one that began last at the back
    std::map<flow_id, std::list<gathering>::iterator> index_;
};

} // namespace avcore
