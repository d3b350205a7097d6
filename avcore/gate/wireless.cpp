#include "avcore/gate/wireless.h"

#include "avcore/netlink/netlink.h"

#include <algorithm>
#include <cerrno>
#include <linux/genetlink.h>
#include <linux/nl80211.h>

namespace avcore {
namespace {

// It has its number since its module was loaded. 0: there is no such family.
std::optional<uint16_t> nl80211_family() {
    uint16_t family = 0;
    netlink_request question(GENL_ID_CTRL, 0, genlmsghdr{CTRL_CMD_GETFAMILY, 1, 0});
    mnl_attr_put_strz(question.message(), CTRL_ATTR_FAMILY_NAME, NL80211_GENL_NAME);
    const int error = netlink_ask(NETLINK_GENERIC, question, [&](const nlmsghdr &message) {
        each_attribute(message, sizeof(genlmsghdr), [&](const nlattr &attribute) {
            if (mnl_attr_get_type(&attribute) == CTRL_ATTR_FAMILY_ID)
                read(attribute, family);
        });
    });
    const bool absent = error == ENOENT || error == EPROTONOSUPPORT;
    return error == 0 || absent ? std::optional(family) : std::nullopt;
}

} // namespace

std::optional<wireless_interface> wireless_interface_in(const nlmsghdr &message) {
    wireless_interface found;
    each_attribute(message, sizeof(genlmsghdr), [&](const nlattr &attribute) {
        const uint16_t type = mnl_attr_get_type(&attribute);
        if (type == NL80211_ATTR_IFINDEX)
            read(attribute, found.index);
        else if (type == NL80211_ATTR_WIPHY)
            read(attribute, found.radio);
        else if (type == NL80211_ATTR_IFTYPE)
            read(attribute, found.type);
        else if (type == NL80211_ATTR_MAC)
            read(attribute, found.mac);
    });
    return found.index != 0 ? std::optional(found) : std::nullopt;
}

std::optional<wireless_list> wireless_interfaces() {
    const std::optional<uint16_t> family = nl80211_family();
    if (family == 0)
        return wireless_list();
    if (!family)
        return std::nullopt;
    wireless_list all;
    const netlink_request question(*family, NLM_F_DUMP,
                                   genlmsghdr{NL80211_CMD_GET_INTERFACE, 0, 0});
    const int error = netlink_ask(NETLINK_GENERIC, question, [&](const nlmsghdr &message) {
        if (const auto found = wireless_interface_in(message))
            all.push_back(*found);
    });
    return error == 0 ? std::optional(all) : std::nullopt;
}

unsigned access_point_of(unsigned index, const wireless_list &all) {
    const auto own =
        std::find_if(all.begin(), all.end(), [&](const auto &each) { return each.index == index; });
    if (own == all.end() || own->type != NL80211_IFTYPE_AP_VLAN)
        return 0;
    const auto found = std::find_if(all.begin(), all.end(), [&](const auto &each) {
        return each.type == NL80211_IFTYPE_AP && each.radio == own->radio && each.mac == own->mac;
    });
    return found != all.end() ? found->index : 0;
}

} // namespace avcore
