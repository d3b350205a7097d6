#include "avcore/gate/way_back.h"

#include "avcore/gate/clsact.h"
#include "avcore/gate/traffic_control.h"
#include "avcore/netlink/link.h"
#include "avcore/netlink/tap.h"
#include "avcore/records/gate_records.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace avcore {
namespace {

constexpr char NAME[] = "jorn-back%d"; // the kernel counts
constexpr char ALIAS[] = "avcore: packets that were held go back";

void check(int error, const std::string &what) {
    if (error != 0)
        throw std::runtime_error("no packets can be held: " + what + ": " + strerror(error));
}

} // namespace

way_back::way_back(const std::string &pins, int program_fd, std::optional<attach_way> wanted)
    : device_(open_tap_device()) {
    check(device_.valid() ? 0 : errno, TAP_DEVICE);
    std::string name = NAME;
    check(make_tap(device_.get(), name), name);
    const std::optional<link_facts> link = look_at_link(name);
    check(link ? set_up_link(link->index, TAP_MTU, ALIAS) : ENODEV, name);
    switch_ipv6_off(name); // what the kernel says there goes nowhere
    index_ = link->index;
    const auto index = static_cast<unsigned>(index_);
    const attach_way way = way_to_attach(index, wanted);
    if (way == attach_way::clsact)
        make_hooks(index);
    attach(pins, index, tc_side::ingress, way, program_fd);
    check(switch_on(link->index), name);
}

bool way_back::is_up() const {
    const std::optional<link_facts> link = look_at_link(index_);
    return link && link->up;
}

bool way_back::write(uint32_t if_index, std::vector<uint8_t> frame) {
    const gate_back to = {if_index};
    const auto *bytes = reinterpret_cast<const uint8_t *>(&to);
    frame.insert(frame.end(), bytes, bytes + sizeof to);
    return ::write(device_.get(), frame.data(), frame.size()) == static_cast<ssize_t>(frame.size());
}

} // namespace avcore
