#include "avcore/gate/wireless.h"

#include "avcore/gate/netlink.h"

#include <algorithm>
#include <cerrno>
#include <linux/genetlink.h>
#include <linux/nl80211.h>

namespace avcore {
namespace {

constexpr int TRIES = 5; // of a list during which an interface came or went

struct family_question {
    genlmsghdr head = {CTRL_CMD_GETFAMILY, 1, 0};
    rtattr name_head = {RTA_LENGTH(sizeof name), CTRL_ATTR_FAMILY_NAME};
    char name[sizeof NL80211_GENL_NAME] = NL80211_GENL_NAME;
};

template <typename Value>
bool read(const netlink_attribute &attribute, Value &value) {
    if (attribute.bytes.size() < sizeof value)
        return false;
    memcpy(&value, attribute.bytes.data(), sizeof value);
    return true;
}

// It has its number since its module was loaded. 0: there is no such family.
std::optional<uint16_t> nl80211_family() {
    uint16_t family = 0;
    const auto see = [&](const nlmsghdr &message) {
        each_attribute(message, sizeof(genlmsghdr), [&](const netlink_attribute &attribute) {
            if (attribute.type == CTRL_ATTR_FAMILY_ID)
                read(attribute, family);
        });
    };
    const int error = netlink_ask(NETLINK_GENERIC, GENL_ID_CTRL, family_question(), see, 0);
    const bool absent = error == ENOENT || error == EPROTONOSUPPORT;
    return error == 0 || absent ? std::optional(family) : std::nullopt;
}

} // namespace

std::optional<wireless_interface> wireless_interface_in(const nlmsghdr &message) {
    wireless_interface found;
    each_attribute(message, sizeof(genlmsghdr), [&](const netlink_attribute &attribute) {
        if (attribute.type == NL80211_ATTR_IFINDEX)
            read(attribute, found.index);
        else if (attribute.type == NL80211_ATTR_WIPHY)
            read(attribute, found.radio);
        else if (attribute.type == NL80211_ATTR_IFTYPE)
            read(attribute, found.type);
        else if (attribute.type == NL80211_ATTR_MAC)
            read(attribute, found.mac);
    });
    return found.index != 0 ? std::optional(found) : std::nullopt;
}

std::optional<wireless_list> wireless_interfaces() {
    const std::optional<uint16_t> family = nl80211_family();
    if (family == 0)
        return wireless_list();
    for (int i = 0; family && i < TRIES; i++) {
        wireless_list all;
        const auto see = [&](const nlmsghdr &message) {
            if (const auto found = wireless_interface_in(message))
                all.push_back(*found);
        };
        const int error =
            netlink_ask(NETLINK_GENERIC, *family, genlmsghdr{NL80211_CMD_GET_INTERFACE, 0, 0}, see);
        if (error == 0)
            return all;
        if (error != EINTR)
            break;
    }
    return std::nullopt;
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
