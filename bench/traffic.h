// Conversations for a capture: what clients of an access point do, packet by packet, with names
// that DNS answers give first. Deterministic.
//
// Of 100 conversations 45 are TLS (a ClientHello with a server name, then opaque records), 20 plain
// HTTP (one in five a 302 redirect), 15 UDP towards port 443, 10 NTP, 5 pings and 5 ARP requests.
// Those with a name start with a DNS question and its answer unless the server's name was asked for
// before. One in ten is VLAN-tagged, one in twenty lies in PPPoE.
#pragma once

#include "support/frames.h"

#include <vector>

// At least `count` frames, in order.
std::vector<octets> make_traffic(size_t count);
