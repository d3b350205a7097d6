#include "avcore/feed/capture_interface.h"

#include "avcore/netlink/link.h"
#include "avcore/netlink/tap.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace avcore {
namespace {

constexpr char ALIAS[] = "avcore: jorn captures here";
constexpr char ENTRY_ALIAS[] = "avcore: the frames' way to jorn";
constexpr char ENTRY_NAME[] = "avcore%d"; // the kernel counts
constexpr uint32_t VETH_MTU = 65'535;

[[noreturn]] void fail(const std::string &name, const std::string &why) {
    throw std::runtime_error("can't make " + name + " for the daemon's capture: " + why);
}

void check(int error, const std::string &name) {
    if (error != 0)
        fail(name, strerror(error));
}

// The kernel would take a percent sign for the place of a number.
bool is_interface_name(const std::string &name) {
    return !name.empty() && name.size() < IFNAMSIZ && name != "." && name != ".." &&
           name.find_first_of("/:% \t\n") == std::string::npos;
}

ifreq request_for(const std::string &name) {
    ifreq request = {};
    memcpy(request.ifr_name, name.data(), name.size());
    return request;
}

constexpr char TAKEN[] = "another avcore, which runs, has it";

// How many programs' frames go into it: that of an avcore receives nothing, which is protocol 0.
int count_feeders(int index) {
    std::ifstream sockets("/proc/net/packet");
    int feeders = 0;
    for (std::string line; std::getline(sockets, line);) {
        std::istringstream fields(line);
        std::string address, references, type, protocol;
        int interface = 0;
        if (fields >> address >> references >> type >> protocol >> interface)
            feeders += protocol == "0000" && interface == index;
    }
    return feeders;
}

// What is there under the name; throws where it isn't an avcore's.
std::optional<link_facts> find_own(const std::string &name) {
    if (!is_interface_name(name))
        fail(name, "that is no name for an interface");
    std::optional<link_facts> link = look_at_link(name);
    if (link && link->alias != ALIAS)
        fail(name, "there is an interface of this name" +
                       (link->kind.empty() ? "" : ", a " + link->kind + " device,") +
                       " that isn't avcore's; choose another name, or -o, which writes into a "
                       "pair that you made");
    return link;
}

// Throws where it isn't a killed avcore's, either.
std::optional<link_facts> find_leftover(const std::string &name) {
    std::optional<link_facts> link = find_own(name);
    if (link && (link->kind != "veth" || (!link->far && count_feeders(link->lower) > 0)))
        fail(name, TAKEN);
    return link;
}

// The kernel has a capture's block closed after 8 ms where the interface claims less than 1 Gbit/s,
// else after about the time in which it would fill, at the claimed speed, one of libpcap's blocks.
int64_t block_timer_ms(uint32_t megabits) {
    constexpr uint32_t block_megabits = 2;
    return megabits < 1000 ? 8 : block_megabits / (megabits / 1000) + 1;
}

// Has an interface claim a speed; returns what it claims then.
uint32_t claim_speed(const std::string &name, uint32_t megabits) {
    const unique_fd any(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request = request_for(name);
    ethtool_cmd link = {};
    request.ifr_data = reinterpret_cast<char *>(&link);
    const auto ask = [&](uint32_t command) {
        link.cmd = command;
        return ioctl(any.get(), SIOCETHTOOL, &request) == 0;
    };
    if (ask(ETHTOOL_GSET)) {
        ethtool_cmd_speed_set(&link, megabits);
        ask(ETHTOOL_SSET);
    }
    return ask(ETHTOOL_GSET) ? ethtool_cmd_speed(&link) : 0;
}

// A name that nothing has. An interface which has the daemon's must be known as avcore's from then
// on, or one that was killed would leave its successor a stranger.
std::string passing_name() {
    std::ostringstream name;
    name << "avcore-" << std::hex << (std::random_device()() & 0xFFFFFFFF);
    return name.str();
}

} // namespace

void check_capture_name(const std::string &name) {
    find_own(name);
}

void remove_leftover_pairs() {
    struct if_nameindex *const all = if_nameindex();
    for (const struct if_nameindex *each = all; each != nullptr && each->if_index != 0; ++each) {
        const std::optional<link_facts> link = look_at_link(static_cast<int>(each->if_index));
        if (link && link->alias == ALIAS && link->kind == "veth" && !link->far &&
            count_feeders(link->lower) == 0)
            remove_link(link->index);
    }
    if_freenameindex(all);
}

capture_interface::pair::~pair() {
    if (index_ > 0)
        remove_link(index_);
}

capture_interface::capture_interface(const capture_settings &wanted) : name_(wanted.interface) {
    const std::optional<link_facts> leftover = find_leftover(name_);
    if (wanted.kind == capture_kind::tap) {
        tap_ = open_tap_device();
        if (!tap_.valid())
            remarks_.push_back(std::string("no TAP device, for ") + TAP_DEVICE + ": " +
                               strerror(errno) + "; " + name_ + " is one end of a veth pair");
    }
    const bool as_it_is = leftover && !leftover->far && !tap_.valid();
    if (leftover && !as_it_is)
        check(remove_link(leftover->index), name_);
    if (tap_.valid())
        make_tap(wanted);
    else
        make_pair(as_it_is ? leftover->lower : 0);
}

void capture_interface::make_tap(const capture_settings &wanted) {
    check(avcore::make_tap(tap_.get(), name_), name_);
    const uint32_t claimed = claim_speed(name_, wanted.speed);
    if (claimed != wanted.speed)
        remarks_.push_back(name_ + " claims " + std::to_string(claimed) +
                           " Mbit/s, for the kernel lets a TAP device claim nothing else");
    timer_ms_ = block_timer_ms(claimed);
    finish(name_, name_, TAP_MTU, ALIAS);
}

// `near_end`: of one that is there.
void capture_interface::make_pair(int near_end) {
    std::string far_name = name_;
    if (near_end == 0) {
        far_name = passing_name();
        check(make_veth(far_name, ENTRY_NAME, VETH_MTU), name_);
        const std::optional<link_facts> made = look_at_link(far_name);
        near_end = made ? made->lower : 0;
    }
    pair_.own(near_end);
    const std::optional<link_facts> entry = look_at_link(near_end);
    if (!entry)
        fail(name_, "it is gone again");
    entry_ = entry->name;
    finish(entry_, entry_, VETH_MTU, ENTRY_ALIAS);
    finish(far_name, name_, VETH_MTU, ALIAS);
}

void capture_interface::refuse_company() {
    if (count_feeders(pair_.index()) < 2)
        return;
    pair_.own(0);
    fail(name_, TAKEN);
}

// What would let the kernel send frames of its own is off before the interface goes up.
void capture_interface::finish(const std::string &made_as, const std::string &name, uint32_t mtu,
                               const char *alias) {
    const std::optional<link_facts> link = look_at_link(made_as);
    check(link ? set_up_link(link->index, mtu, alias) : ENODEV, name);
    if (made_as != name)
        check(rename_link(link->index, name), name);
    if (!switch_ipv6_off(name))
        remarks_.push_back("IPv6 can't be switched off on " + name + ": " + strerror(errno) +
                           "; the kernel's own frames will turn up between the others");
    check(switch_on(link->index), name);
}

} // namespace avcore
