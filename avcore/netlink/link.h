// What the kernel says about a network interface of this namespace, asked over rtnetlink.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace avcore {

struct link_facts {
    int index = 0;
    int lower = 0;    // of a veth: the index of its peer
    bool far = false; // `lower` counts in another namespace
    bool running = false;
    uint32_t times_down = 0; // how often it has lost its carrier
};

// Nothing when there is no such interface.
std::optional<link_facts> look_at_link(const std::string &name);

// Whether the two are ends of one veth pair: what is written into one is captured on the other.
bool are_peers(const std::string &a, const std::string &b);

} // namespace avcore
