// What avcore knows about one frame from its headers. The daemon's own decoders do the work, so the
// flow key is the one that the frame's verdict will carry.
#pragma once

#include "avcore/base/ip_address.h"
#include "platform/records.h"

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace avcore {

using mac_address = std::array<uint8_t, 6>;
std::string mac_text(const mac_address &mac);
std::optional<mac_address> mac_in(std::string_view text); // 00:1a:2b:3c:4d:5e

// A frame and its trailer must fit into one capture of the daemon.
inline constexpr size_t MAX_FED_SIZE = 65535;
inline constexpr size_t MAX_FRAME_SIZE = MAX_FED_SIZE - sizeof(av_pkt_trailer);

// One side of a flow. Without an IPv4 header only the MAC address counts.
struct endpoint {
    mac_address mac = {};
    uint32_t ip_be = 0;
    uint16_t port = 0;          // host byte order; 0 where the protocol has none
    ip_address address = ip_be; // in IPv6 the one that `ip_be` stands in for towards the daemon

    auto operator<=>(const endpoint &) const = default;
};

struct frame_facts {
    flow_key key = {};
    endpoint sender;
    endpoint receiver;
    uint16_t ether_type = 0;
    uint8_t ip_proto = 0;
    bool ipv4 = false;
    uint8_t dscp = 0;                     // RFC 2474
    uint8_t tcp_flags = 0;                // TH_SYN and so on, where they were looked at
    bool redirects = false;               // the daemon may learn an address from it
    std::optional<bool> sender_is_client; // where the capture tells
    bool is_damaged = false; // no host takes it: a sum of its TCP segment's doesn't hold
    // Of UDP's payload in each datagram, where the capture tells that several were joined; else 0.
    uint16_t segment_size = 0;
};

// The two sides in their own order, so that both directions of a flow have one id. Where a gate saw
// it, it is the flow of the client behind that gate: of two clients each has its own, and so has a
// packet that a client sends as if it came from the server.
struct flow_id {
    enum class side : uint8_t { UNTOLD, LOW, HIGH };
    static constexpr side SIDES[] = {side::UNTOLD, side::LOW, side::HIGH};

    bool ipv4 = false;
    uint16_t ether_type = 0; // only without IPv4
    uint8_t ip_proto = 0;
    // Without `address`, and without MAC address in IPv4: a routed flow changes them and stays one
    // flow.
    endpoint low;
    endpoint high;
    side client = side::UNTOLD;

    auto operator<=>(const flow_id &) const = default;
};
flow_id flow_id_of(const frame_facts &frame);
flow_id flow_id_of(const flow_key &key);

// Decodes what the daemon will capture: a frame with the trailer's 276 bytes behind it. All is
// IPv4's there.
frame_facts decode_frame(std::span<const uint8_t> frame_and_trailer);

// The IPv4 packet in a frame (without trailer), found where the decoders find it, without the
// frame's padding. Empty when there is none, its lengths contradict each other, or it is a later
// fragment.
std::span<const uint8_t> ipv4_packet(std::span<const uint8_t> frame);

// The payload of the UDP datagram in such a packet; empty when there is none.
std::span<const uint8_t> udp_payload(std::span<const uint8_t> ipv4);

struct tcp_segment {
    uint32_t sequence = 0;
    uint32_t acknowledged = 0;
    uint8_t flags = 0; // TH_SYN and so on
    std::span<const uint8_t> data;
};
// The segment of TCP in such a packet.
std::optional<tcp_segment> tcp_segment_in(std::span<const uint8_t> ipv4);

// A packet of the headers and each `segment_size` bytes of the payload, the last with what is left;
// `most` of them from the first on.
std::vector<std::vector<uint8_t>> cut_payload(std::span<const uint8_t> headers,
                                              std::span<const uint8_t> payload, size_t segment_size,
                                              size_t most = SIZE_MAX);

// The packets that segmentation joined to such a one of UDP, each as it was on the wire but for its
// checksums; `most` of them from the first on.
std::vector<std::vector<uint8_t>> cut_datagrams(std::span<const uint8_t> ipv4, size_t segment_size,
                                                size_t most);

} // namespace avcore
