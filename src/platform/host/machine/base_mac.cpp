#include "platform/host/machine/base_mac.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

bool hardware_address(int fd, unsigned if_index, uint8_t (&mac)[6]) {
    ifreq request = {};
    if (if_indextoname(if_index, request.ifr_name) == nullptr ||
        ioctl(fd, SIOCGIFFLAGS, &request) != 0 || (request.ifr_flags & IFF_LOOPBACK) != 0 ||
        ioctl(fd, SIOCGIFHWADDR, &request) != 0)
        return false;
    memcpy(mac, request.ifr_hwaddr.sa_data, sizeof mac);
    return std::any_of(mac, mac + sizeof mac, [](uint8_t byte) { return byte != 0; });
}

// Asked of the kernel through a socket: /sys may show another network namespace.
bool first_hardware_address(uint8_t (&mac)[6]) {
    struct if_nameindex *interfaces = if_nameindex();
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    unsigned lowest = 0;
    if (interfaces != nullptr && fd >= 0) {
        for (const struct if_nameindex *i = interfaces; i->if_index != 0; ++i) {
            uint8_t candidate[6];
            if ((lowest == 0 || i->if_index < lowest) &&
                hardware_address(fd, i->if_index, candidate)) {
                lowest = i->if_index;
                memcpy(mac, candidate, sizeof mac);
            }
        }
    }
    if (interfaces != nullptr)
        if_freenameindex(interfaces);
    if (fd >= 0)
        close(fd);
    return lowest != 0;
}

} // namespace

bool machine_base_mac(char (&text)[MAC_TEXT_SIZE]) {
    uint8_t mac[6];
    if (!first_hardware_address(mac))
        return false;
    snprintf(text, sizeof text, "%02X:%02X:%02X:%02X:%02X:%02X", mac[0], mac[1], mac[2], mac[3],
             mac[4], mac[5]);
    return true;
}
