// The records of roaming: the controller's notice that a station went to another access point, and
// the flows that follow it there.
//
// Both are copied in and out with memcpy. Addresses and ports are in network byte order, everything
// else is the access point's own, little-endian.
#pragma once

#include <cstddef>
#include <cstdint>

// Values of the address families.
inline constexpr uint16_t ROAM_FAMILY_IPV4 = 2;
inline constexpr uint16_t ROAM_FAMILY_IPV6 = 10;

// roam_notify, 76 bytes: command 9's record, and what the platform is asked with.
//
//    0 sta_mac       12 to_ap_mac        24 from_ap_ipv4   48 to_ap_family   60 to_ap_ipv6
//    6 from_ap_mac   18 from_ap_family   28 from_ap_ipv6   56 to_ap_ipv4
struct roam_notify {
    uint8_t sta_mac[6];
    uint8_t from_ap_mac[6];
    uint8_t to_ap_mac[6];
    uint16_t from_ap_family;
    uint8_t reserved1[4];
    uint32_t from_ap_ipv4;
    uint8_t from_ap_ipv6[16];
    uint8_t reserved2[4];
    uint16_t to_ap_family;
    uint8_t reserved3[6];
    uint32_t to_ap_ipv4;
    uint8_t to_ap_ipv6[16];
};
static_assert(sizeof(roam_notify) == 76);
static_assert(offsetof(roam_notify, from_ap_family) == 18);
static_assert(offsetof(roam_notify, from_ap_ipv4) == 24);
static_assert(offsetof(roam_notify, to_ap_family) == 48);
static_assert(offsetof(roam_notify, to_ap_ipv4) == 56);
static_assert(offsetof(roam_notify, to_ap_ipv6) == 60);

// roam_flow, 132 bytes: one flow of a station. What is reserved is the platform's and passed on.
//
//    0 server_index   20 word_a   28 port_a   36 ipv4       68 server_name
//    4 flow_tag       26 word_b   30 port_b
struct roam_flow {
    uint32_t server_index; // which of `ipv4` is the server: 0 or 1, nothing else
    uint32_t flow_tag;
    uint8_t reserved1[12];
    uint8_t word_a[2]; // these two are shown, not read
    uint8_t reserved2[4];
    uint8_t word_b[2];
    uint16_t port_a;
    uint16_t port_b;
    uint8_t reserved3[4];
    uint32_t ipv4[2];
    uint8_t reserved4[24];
    char server_name[64];
};
static_assert(sizeof(roam_flow) == 132);
static_assert(offsetof(roam_flow, word_a) == 20);
static_assert(offsetof(roam_flow, word_b) == 26);
static_assert(offsetof(roam_flow, port_a) == 28);
static_assert(offsetof(roam_flow, ipv4) == 36);
static_assert(offsetof(roam_flow, server_name) == 68);

// The message between access points: a u32 count, then so many flows.
inline constexpr uint32_t ROAM_FLOWS_MAX = 128;
inline constexpr size_t ROAM_MESSAGE_MAX = 16'900;
static_assert(sizeof(uint32_t) + ROAM_FLOWS_MAX * sizeof(roam_flow) == ROAM_MESSAGE_MAX);
