// The records of user-defined and port-service applications.
//
// userdef_app is command 6's record, in host byte order but for the addresses, copied in with
// memcpy. The port_app list is read from the port-service file; the built-in table has the same
// rows.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr int32_t USERDEF_APPS_MAX = 32;
inline constexpr uint32_t PORT_APPS_MAX = 1025; // entries of the user list

// userdef_app, 148 bytes:    0 src_family   8 src_ip   32 dst_family   40 dst_ip   64 netmask
//                           68 src_port    70 dst_port 72 protocol     76 app_name
//                          142 app_id     144 cat_id  146 bitmap
struct userdef_app {
    uint16_t src_family; // 2 IPv4, 10 IPv6, anything else none
    uint8_t reserved1[6];
    uint8_t src_ip[16]; // IPv4: the first 4 bytes, network byte order
    uint8_t reserved2[8];
    uint16_t dst_family;
    uint8_t reserved3[6];
    uint8_t dst_ip[16];
    uint8_t reserved4[8];
    uint32_t netmask;  // of dst_ip, network byte order
    uint16_t src_port; // 0 = none
    uint16_t dst_port;
    uint32_t protocol; // 6 TCP, 17 UDP, anything else none
    char app_name[66];
    uint16_t app_id;
    uint16_t cat_id;
    uint8_t bitmap; // USERDEF_* bits, computed on receipt
    uint8_t reserved5;
};
static_assert(sizeof(userdef_app) == 148);
static_assert(offsetof(userdef_app, dst_family) == 32);
static_assert(offsetof(userdef_app, netmask) == 64);
static_assert(offsetof(userdef_app, app_name) == 76);
static_assert(offsetof(userdef_app, app_id) == 142);
static_assert(offsetof(userdef_app, bitmap) == 146);

// Whether an address is none of the network's. All are in network byte order.
constexpr bool is_outside(uint32_t ip_be, uint32_t network_be, uint32_t netmask_be) {
    return ((ip_be ^ network_be) & netmask_be) != 0;
}

// Bits of userdef_app::bitmap. Only the last three take part in matching.
inline constexpr uint8_t USERDEF_SRC_IP = 0x01;
inline constexpr uint8_t USERDEF_SRC_PORT = 0x02;
inline constexpr uint8_t USERDEF_DST_IP = 0x04;
inline constexpr uint8_t USERDEF_DST_PORT = 0x08;
inline constexpr uint8_t USERDEF_PROTOCOL = 0x10;

// The user-defined application table; slots beyond the count are zero.
struct userdef_table {
    int32_t count; // 0..32
    userdef_app records[USERDEF_APPS_MAX];
};

// One row of a port-service table, 80 bytes:   0 begin_port   4 end_port   8 tcp_flag   9 udp_flag
//                                             10 app_name    76 app_id    78 cat_id
struct port_service {
    uint32_t begin_port;
    uint32_t end_port; // included; equal to begin_port for a single port
    uint8_t tcp_flag;  // 1 = applies to TCP
    uint8_t udp_flag;
    char app_name[66]; // at most 64 characters
    uint16_t app_id;
    uint16_t cat_id;
};
static_assert(sizeof(port_service) == 80);
static_assert(offsetof(port_service, app_name) == 10);
static_assert(offsetof(port_service, app_id) == 76);

// An entry of the user port-service list: one port, one protocol.
struct port_app : port_service {
    port_app *next;
};
