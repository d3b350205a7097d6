// What one direction of a flow had in a stretch of time, as collectors are told of it. Numbers are
// in this machine's byte order, and mean what IANA's registry of IPFIX's elements says, but where
// a comment says otherwise.
#pragma once

#include <algorithm>
#include <array>
#include <compare>
#include <cstdint>
#include <string>

namespace avwatch {

// RFC 6759: a number is one of the engine that it belongs to.
enum application_engine : uint8_t {
    USER_DEFINED_ENGINE = 6, // ours: names from DNS, handshakes, policies
    NDPI_ENGINE = 22,        // 65,535 at most
};
struct application_id {
    uint8_t engine = USER_DEFINED_ENGINE;
    uint32_t number = 0;

    auto operator<=>(const application_id &) const = default;
};

// flowEndReason, 136: why the record was made.
enum flow_end_reason : uint8_t {
    END_INACTIVE = 1,
    END_ACTIVE_TIMEOUT = 2, // the flow goes on
    END_DETECTED = 3,
    END_FORCED = 4,
    END_NO_ROOM = 5,
};

// forwardingStatus, 89.
enum forwarding_status : uint8_t {
    FORWARDED = 64,
    DROPPED_BY_POLICY = 130, // "ACL drop"
    DROPPED_BY_LIMIT = 138,  // "policer"
};

// firewallEvent, 233.
enum firewall_event : uint8_t {
    FLOW_CREATED = 1,
    FLOW_DELETED = 2,
    FLOW_DENIED = 3,
    FLOW_UPDATED = 5,
};

struct exported_record {
    static constexpr size_t ADDRESS_SIZE = 16;
    using address = std::array<uint8_t, ADDRESS_SIZE>; // of IPv4: its octets in the last four
    using mac_address = std::array<uint8_t, 6>;        // all zeros: it isn't known

    bool from_client = true; // flowDirection, 61: 0; else 1
    bool is_ipv6 = false;
    address source = {}, destination = {};
    uint16_t source_port = 0, destination_port = 0;
    uint8_t protocol = 0;
    uint8_t dscp = 0;
    uint64_t bytes = 0;   // of frames, as the gate counts them
    uint64_t packets = 0; // that passed
    uint64_t dropped = 0; // packets; of both directions, in the record of the one from the client
    uint64_t begun_ms = 0, ended_ms = 0; // since 1970
    uint32_t ingress = 0, egress = 0;    // interfaces; 0: not known
    uint8_t end_reason = END_ACTIVE_TIMEOUT;
    uint8_t status = FORWARDED;
    uint8_t event = FLOW_UPDATED;
    application_id application;
    mac_address station = {}, access_point = {};
    uint32_t utp = 0;   // these two are elements of our own
    std::string reason; // of a denial
};

inline bool is_known(const exported_record::mac_address &mac) {
    return std::ranges::any_of(mac, [](uint8_t octet) { return octet != 0; });
}

} // namespace avwatch
