#include "avcore/feed/frame_sink.h"

#include "avcore/frames/frame.h"
#include "avcore/netlink/link.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
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

} // namespace

frame_sink::frame_sink(const std::string &interface)
    : interface_(interface),
      // Protocol 0: this socket never receives.
      socket_(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    const auto fail = [&](const std::string &why) {
        throw std::runtime_error("can't write into " + interface + ": " + why);
    };
    if (!socket_.valid())
        fail(strerror(errno));
    ifreq request = {};
    if (interface.empty() || interface.size() >= sizeof request.ifr_name)
        fail("not an interface name");
    memcpy(request.ifr_name, interface.data(), interface.size());
    if (ioctl(socket_.get(), SIOCGIFHWADDR, &request) != 0)
        fail(strerror(errno));
    if (request.ifr_hwaddr.sa_family != ARPHRD_ETHER)
        fail("not an Ethernet interface");
    if (ioctl(socket_.get(), SIOCGIFFLAGS, &request) != 0 || (request.ifr_flags & IFF_UP) == 0)
        fail("it is down");
    if (ioctl(socket_.get(), SIOCGIFMTU, &request) != 0)
        fail(strerror(errno));
    max_size_ = std::min(MAX_FED_SIZE, static_cast<size_t>(request.ifr_mtu) + ETHER_HDR_LEN);

    sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
    if (bind(socket_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        fail(strerror(errno));
    setsockopt(socket_.get(), SOL_SOCKET, SO_SNDBUFFORCE, &SEND_BUFFER_BYTES,
               sizeof SEND_BUFFER_BYTES);
    link_lost();
}

bool frame_sink::link_lost() {
    const std::optional<link_facts> link = look_at_link(interface_);
    if (!link)
        return false; // gone, which the next `write` will find
    const bool lost = !link->running || link->times_down != times_down_;
    times_down_ = link->times_down;
    return lost;
}

bool frame_sink::write(std::span<const uint8_t> bytes) {
    if (send(socket_.get(), bytes.data(), bytes.size(), 0) >= 0)
        return true;
    if (errno == EAGAIN || errno == ENOBUFS || errno == EINTR || errno == ENETDOWN)
        return false;
    throw std::runtime_error("can't write into " + interface_ + ": " + strerror(errno));
}

} // namespace avcore
