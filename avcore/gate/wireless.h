// The interfaces of the machine's radios, as nl80211 tells of them, and which of them belong
// together.
//
// An access point has one interface for all of its stations, but for those whose frames have four
// addresses and those that are in a VLAN of their own: their frames come and go at another one
// (AP_VLAN), and at that alone. Its name is its maker's affair; its radio and its MAC address are
// the access point's.
#pragma once

#include <array>
#include <cstdint>
#include <linux/netlink.h>
#include <optional>
#include <vector>

namespace avcore {

struct wireless_interface {
    unsigned index = 0;
    uint32_t radio = 0;
    uint32_t type = 0; // nl80211_iftype
    std::array<uint8_t, 6> mac = {};

    bool operator==(const wireless_interface &) const = default;
};

using wireless_list = std::vector<wireless_interface>;

// An empty one where there is no nl80211, none where it doesn't answer.
std::optional<wireless_list> wireless_interfaces();

// Of one message of its answer; none: it is about something else than a network interface.
std::optional<wireless_interface> wireless_interface_in(const nlmsghdr &message);

// The access point's interface that this one belongs to; 0 where it belongs to none.
unsigned access_point_of(unsigned index, const wireless_list &all);

} // namespace avcore
