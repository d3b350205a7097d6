// The mapping of an ePDG's name to its address that access points could share through their
// controller: asked for when a packet's ePDG has no known name, announced when a name was matched.
//
// This system has no transport for it. Both sides are stubs that say in the log what they would
// send.
#pragma once

#include "packet/records/context.h"

#include <cstddef>
#include <cstdint>

// What would be sent, 336 bytes:   0 ifname   16 flow_key   76 ip_be   80 fqdn
struct fqdn_map_request {
    char ifname[16]; // of the binding used, NUL-terminated
    struct flow_key flow_key;
    uint32_t ip_be; // the mapping; zeros where it is asked for
    char fqdn[256];
};
static_assert(sizeof(fqdn_map_request) == 336);
static_assert(offsetof(fqdn_map_request, flow_key) == 16);
static_assert(offsetof(fqdn_map_request, ip_be) == 76);
static_assert(offsetof(fqdn_map_request, fqdn) == 80);

enum class fqdn_map_kind : uint8_t {
    question,
    announcement,
};

fqdn_map_request make_fqdn_map_request(const pkt_ctx &pkt, fqdn_map_kind kind);

void jorn_recv_fqdnmap_from_zeg(const pkt_ctx *pkt);
void jorn_send_fqdnmap_to_zeg(const pkt_ctx *pkt);
