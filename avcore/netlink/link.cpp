#include "avcore/netlink/link.h"

#include "avcore/netlink/netlink.h"

#include <linux/rtnetlink.h>
#include <net/if.h>

namespace avcore {
namespace {

link_facts facts_in(const nlmsghdr &message, const ifinfomsg &link) {
    link_facts facts;
    facts.index = link.ifi_index;
    facts.running = (link.ifi_flags & IFF_RUNNING) != 0;
    each_attribute(message, sizeof link, [&](const nlattr &attribute) {
        const uint16_t type = mnl_attr_get_type(&attribute);
        if (type == IFLA_LINK)
            read(attribute, facts.lower);
        else if (type == IFLA_LINK_NETNSID)
            facts.far = true;
        else if (type == IFLA_CARRIER_DOWN_COUNT)
            read(attribute, facts.times_down);
    });
    return facts;
}

} // namespace

std::optional<link_facts> look_at_link(const std::string &name) {
    if (name.empty() || name.size() >= IFNAMSIZ)
        return std::nullopt;
    netlink_request question(RTM_GETLINK, 0, ifinfomsg{});
    mnl_attr_put_strz(question.message(), IFLA_IFNAME, name.c_str());
    std::optional<link_facts> facts;
    netlink_ask(NETLINK_ROUTE, question, [&](const nlmsghdr &message) {
        if (const std::optional<ifinfomsg> link = head_of<ifinfomsg>(message))
            facts = facts_in(message, *link);
    });
    return facts;
}

bool are_peers(const std::string &a, const std::string &b) {
    const std::optional<link_facts> one = look_at_link(a);
    const std::optional<link_facts> other = look_at_link(b);
    return one && other && !one->far && !other->far && one->lower == other->index &&
           other->lower == one->index;
}

} // namespace avcore
