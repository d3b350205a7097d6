#include "avcore/netlink/tap.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace avcore {

unique_fd open_tap_device() {
    return unique_fd(open(TAP_DEVICE, O_RDWR | O_CLOEXEC | O_NONBLOCK));
}

int make_tap(int device, std::string &name) {
    ifreq request = {};
    if (name.size() >= sizeof request.ifr_name)
        return ENAMETOOLONG;
    memcpy(request.ifr_name, name.data(), name.size());
    request.ifr_flags = static_cast<short>(IFF_TAP | IFF_NO_PI | IFF_TUN_EXCL);
    if (ioctl(device, TUNSETIFF, &request) != 0)
        return errno;
    name = request.ifr_name;
    return 0;
}

bool switch_ipv6_off(const std::string &name) {
    const std::string path = "/proc/sys/net/ipv6/conf/" + name + "/disable_ipv6";
    const unique_fd file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    return file.valid() ? write(file.get(), "1", 1) == 1 : errno == ENOENT;
}

} // namespace avcore
