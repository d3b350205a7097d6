#include "avcore/feed/frame_sink.h"

#include "avcore/frames/frame.h"
#include "avcore/netlink/link.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace avcore {
namespace {

constexpr int SEND_BUFFER_BYTES = 4 * 1024 * 1024;
constexpr uint32_t LARGEST_MTU = 65'535;

std::optional<link_facts> peer_of(const link_facts &link) {
    return link.kind == "veth" && !link.far ? look_at_link(link.lower) : std::nullopt;
}

bool has_ipv6(const std::string &interface) {
    std::ifstream file("/proc/sys/net/ipv6/conf/" + interface + "/disable_ipv6");
    return file.get() == '0';
}

// What an end of a pair lacks, as it would be said to the kernel.
std::string missing_at(const link_facts &end) {
    std::string missing;
    const auto add = [&](bool is_missing, const std::string &what) {
        if (is_missing)
            missing += (missing.empty() ? "" : ", ") + what;
    };
    add(end.mtu < LARGEST_MTU, "mtu 65535");
    add(end.resolves, "arp off");
    add(has_ipv6(end.name), "net.ipv6.conf." + end.name + ".disable_ipv6=1");
    return missing.empty() ? "" : end.name + " is without " + missing;
}

} // namespace

frame_sink::frame_sink(const std::string &interface) : entry_(interface) {
    open_entry();
}

frame_sink::frame_sink(const capture_settings &wanted) : made_(wanted), entry_(made_->entry()) {
    if (made_->tap() < 0) {
        open_entry();
        made_->refuse_company();
        return;
    }
    entry_ = made_->name();
    max_size_ = MAX_FED_SIZE;
    link_lost();
}

void frame_sink::open_entry() {
    const auto fail = [&](const std::string &why) {
        throw std::runtime_error("can't write into " + entry_ + ": " + why);
    };
    // Protocol 0: this socket never receives.
    socket_ = unique_fd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket_.valid())
        fail(strerror(errno));
    ifreq request = {};
    if (entry_.empty() || entry_.size() >= sizeof request.ifr_name)
        fail("not an interface name");
    memcpy(request.ifr_name, entry_.data(), entry_.size());
    if (ioctl(socket_.get(), SIOCGIFHWADDR, &request) != 0)
        fail(strerror(errno));
    if (request.ifr_hwaddr.sa_family != ARPHRD_ETHER)
        fail("not an Ethernet interface");
    const std::optional<link_facts> link = look_at_link(entry_);
    if (!link || !link->up)
        fail("it is down");
    const std::optional<link_facts> peer = peer_of(*link);
    const size_t mtu = std::min(link->mtu, peer ? peer->mtu : LARGEST_MTU);
    max_size_ = std::min(MAX_FED_SIZE, mtu + ETHER_HDR_LEN);

    sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = link->index;
    if (bind(socket_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        fail(strerror(errno));
    setsockopt(socket_.get(), SOL_SOCKET, SO_SNDBUFFORCE, &SEND_BUFFER_BYTES,
               sizeof SEND_BUFFER_BYTES);
    link_lost();
}

std::vector<std::string> frame_sink::remarks() const {
    if (made_)
        return made_->remarks();
    std::vector<std::string> remarks;
    const std::optional<link_facts> link = look_at_link(entry_);
    for (const std::optional<link_facts> &end : {link, link ? peer_of(*link) : std::nullopt})
        if (const std::string missing = end ? missing_at(*end) : ""; !missing.empty())
            remarks.push_back(missing + " (--capture makes an interface that has all)");
    return remarks;
}

bool frame_sink::link_lost() {
    const std::optional<link_facts> link = look_at_link(entry_);
    if (!link)
        return false; // gone, which the next `write` will find
    const bool lost = !link->running || link->times_down != times_down_;
    times_down_ = link->times_down;
    return lost;
}

bool frame_sink::write(std::span<const uint8_t> bytes) {
    if (::write(descriptor(), bytes.data(), bytes.size()) >= 0)
        return true;
    constexpr int not_now[] = {EAGAIN, ENOBUFS, EINTR, ENETDOWN, EIO}; // EIO: a TAP that is down
    if (std::find(std::begin(not_now), std::end(not_now), errno) != std::end(not_now))
        return false;
    throw std::runtime_error("can't write into " + name() + ": " + strerror(errno));
}

} // namespace avcore
