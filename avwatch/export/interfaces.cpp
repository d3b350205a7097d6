#include "avwatch/export/interfaces.h"

#include <algorithm>
#include <cstring>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace avwatch {

interfaces::interfaces() : asked_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}

uint16_t interfaces::number_of(const std::string &name) {
    const auto found = std::ranges::find(known_, name, &interface::name);
    if (found != known_.end())
        return static_cast<uint16_t>(found - known_.begin());
    if (known_.size() > MAX || name.size() >= IFNAMSIZ)
        return 0;
    look(known_.emplace_back(interface{name, 0, {}}));
    return static_cast<uint16_t>(known_.size() - 1);
}

void interfaces::look_again(int64_t now_ms) {
    if (now_ms < due_ms_)
        return;
    due_ms_ = now_ms + LOOK_MS;
    for (size_t i = 1; i < known_.size(); ++i)
        look(known_[i]);
}

void interfaces::look(interface &known) const {
    known.index = if_nametoindex(known.name.c_str());
    known.mac = {};
    ifreq asked = {};
    known.name.copy(asked.ifr_name, sizeof asked.ifr_name - 1);
    if (ioctl(asked_.get(), SIOCGIFHWADDR, &asked) == 0 &&
        asked.ifr_hwaddr.sa_family == ARPHRD_ETHER)
        memcpy(known.mac.data(), asked.ifr_hwaddr.sa_data, known.mac.size());
}

} // namespace avwatch
