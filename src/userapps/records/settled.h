// What the packet path uses in place of the definitions, the port-service list and the rules of the
// ARC policies: all that can be worked out of them before a packet comes.
//
// Part of the state block; userapps/settle.h fills it and says when. All zeros mean that nothing is
// settled yet.
#pragma once

#include "control/records/arc.h"
#include "userapps/records/apps.h"

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

// Both kinds of application under one number: the definitions by their slots, the list's entries
// from USERDEF_APPS_MAX on by their places in the list.
inline constexpr size_t APPS_MAX = USERDEF_APPS_MAX + PORT_APPS_MAX;

// A definition's criteria. One that isn't given has a mask of zeros, which every packet fits.
struct userdef_criteria {
    uint32_t network_be;
    uint32_t netmask_be;
    uint32_t port;
    uint32_t port_mask;
    uint32_t protocol;
    uint32_t protocol_mask;
};

// The list by port and protocol: a bit for each pair that has an entry, and the entries' places in
// the order of the bits. A look-up costs the same whatever the list holds, and no list makes
// the pairs collide.
class port_app_index {
public:
    static constexpr uint16_t NONE = 0xFFFF;

    void build(const port_app *head);

    // The place in the list of the entry for a port, or NONE.
    uint16_t find(bool udp, uint16_t port) const {
        const unsigned key = key_of(udp, port);
        const uint64_t word = present_[key / 64];
        const uint64_t bit = uint64_t{1} << key % 64;
        if ((word & bit) == 0)
            return NONE;
        return places_[before_[key / 64] + static_cast<unsigned>(std::popcount(word & (bit - 1)))];
    }

private:
    static constexpr unsigned WORDS = 2 * 65536 / 64;

    static constexpr unsigned key_of(bool udp, uint32_t port) {
        return (udp ? 0x10000u : 0u) | (port & 0xFFFF);
    }

    std::array<uint64_t, WORDS> present_;
    std::array<uint16_t, WORDS> before_; // bits that are set in the words before this one
    std::array<uint16_t, PORT_APPS_MAX> places_;
};

// Which applications an ARC policy lists as "User Defined", a bit each.
struct app_attachment {
    uint32_t arc_stamp; // daemon_state::arc_generation + 1 when this was settled
    uint32_t apps_stamp;
    std::array<uint64_t, (APPS_MAX + 63) / 64> attached;
};

struct settled_apps {
    uint32_t stamp; // changes each time; 0 = never settled
    uint32_t userdef_count;
    std::array<userdef_criteria, USERDEF_APPS_MAX> criteria;
    port_app_index ports;
    uint32_t port_app_count;
    std::array<const port_app *, PORT_APPS_MAX> port_apps; // in list order
    uint32_t app_count;
    std::array<uint16_t, APPS_MAX> by_name; // the applications' numbers, sorted by their names
    std::array<app_attachment, UTP_ID_LOOKUP_MAX> attachments; // by UTP id - 1
};
