// Network interfaces of this namespace: what the kernel says about them, and what it is told to
// make of them, over rtnetlink.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace avcore {

struct link_facts {
    int index = 0;
    std::string name;
    std::string kind;  // "veth", "tun"; empty: none that is made
    std::string alias; // what people read beside its name
    int lower = 0;     // of a veth: the index of its peer
    bool far = false;  // `lower` counts in another namespace
    bool up = false;
    bool running = false;
    bool resolves = false; // neighbours' addresses: `arp on`
    uint32_t mtu = 0;
    uint32_t times_down = 0; // how often it has lost its carrier
};

// Nothing when there is no such interface.
std::optional<link_facts> look_at_link(const std::string &name);
std::optional<link_facts> look_at_link(int index);

// Whether the two are ends of one veth pair: what is written into one is captured on the other.
bool are_peers(const std::string &a, const std::string &b);

// All of these return 0 or an errno value.

// A pair, both ends down. A name with %d in it is given a number by the kernel.
int make_veth(const std::string &name, const std::string &peer, uint32_t mtu);
// Without ARP. It stays up or down.
int set_up_link(int index, uint32_t mtu, const std::string &alias);
// One that is down.
int rename_link(int index, const std::string &name);
int switch_on(int index);
int remove_link(int index);

} // namespace avcore
