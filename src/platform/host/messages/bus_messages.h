// The messages of the bus socket, for both of its ends: the message-bus operations of this folder,
// and whatever carries messages between access points.
//
// The bus socket is a UNIX socket of type SOCK_SEQPACKET; a datagram is a message: a head, the
// record that belongs to its kind, and, behind bus_publication and bus_delivery, the payload.
// Integers are in host byte order. Texts are padded with NULs; one that fills its field has none.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

inline constexpr char BUS_SOCKET_PATH[] = "/var/run/av_bus.sock";
inline constexpr char BUS_SOCKET_VARIABLE[] = "JORN_BUS_SOCK"; // names another path

inline const char *bus_socket_path() {
    const char *chosen = getenv(BUS_SOCKET_VARIABLE);
    return chosen != nullptr && chosen[0] != '\0' ? chosen : BUS_SOCKET_PATH;
}

inline constexpr size_t BUS_PAYLOAD_MAX = 16'900;

enum class bus_kind : uint32_t {
    subscribe = 1,
    add_peer = 2,
    publish = 3,
    deliver = 4, // the only one towards the daemon
};

struct bus_message_head {
    bus_kind kind;
};
static_assert(sizeof(bus_message_head) == 4);

// subscribe
struct bus_subscription {
    char client[32];
    char sender[64]; // "*": any
    char topic[64];
};
static_assert(sizeof(bus_subscription) == 160);
static_assert(offsetof(bus_subscription, sender) == 32);
static_assert(offsetof(bus_subscription, topic) == 96);

// add_peer
struct bus_peer {
    char name[64];
    char address[48]; // what inet_pton takes
};
static_assert(sizeof(bus_peer) == 112);
static_assert(offsetof(bus_peer, address) == 64);

// publish
struct bus_publication {
    char destination[64];
    char topic[64];
};
static_assert(sizeof(bus_publication) == 128);
static_assert(offsetof(bus_publication, topic) == 64);

// deliver
struct bus_delivery {
    char sender[64];
    char topic[64];
};
static_assert(sizeof(bus_delivery) == 128);
static_assert(offsetof(bus_delivery, topic) == 64);
