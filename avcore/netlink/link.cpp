#include "avcore/netlink/link.h"

#include "avcore/netlink/netlink.h"

#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <net/if.h>

namespace avcore {
namespace {

link_facts facts_in(const nlmsghdr &message, const ifinfomsg &link) {
    link_facts facts;
    facts.index = link.ifi_index;
    facts.up = (link.ifi_flags & IFF_UP) != 0;
    facts.running = (link.ifi_flags & IFF_RUNNING) != 0;
    facts.resolves = (link.ifi_flags & IFF_NOARP) == 0;
    each_attribute(message, sizeof link, [&](const nlattr &attribute) {
        switch (mnl_attr_get_type(&attribute)) {
        case IFLA_IFNAME:
            facts.name = text_of(attribute);
            break;
        case IFLA_IFALIAS:
            facts.alias = text_of(attribute);
            break;
        case IFLA_LINKINFO:
            each_nested(attribute, [&](const nlattr &about) {
                if (mnl_attr_get_type(&about) == IFLA_INFO_KIND)
                    facts.kind = text_of(about);
            });
            break;
        case IFLA_LINK:
            read(attribute, facts.lower);
            break;
        case IFLA_LINK_NETNSID:
            facts.far = true;
            break;
        case IFLA_MTU:
            read(attribute, facts.mtu);
            break;
        case IFLA_CARRIER_DOWN_COUNT:
            read(attribute, facts.times_down);
            break;
        }
    });
    return facts;
}

std::optional<link_facts> ask(const netlink_request &question) {
    std::optional<link_facts> facts;
    netlink_ask(NETLINK_ROUTE, question, [&](const nlmsghdr &message) {
        if (const std::optional<ifinfomsg> link = head_of<ifinfomsg>(message))
            facts = facts_in(message, *link);
    });
    return facts;
}

ifinfomsg link_at(int index) {
    ifinfomsg link = {};
    link.ifi_index = index;
    return link;
}

} // namespace

std::optional<link_facts> look_at_link(const std::string &name) {
    if (name.empty() || name.size() >= IFNAMSIZ)
        return std::nullopt;
    netlink_request question(RTM_GETLINK, 0, ifinfomsg{});
    mnl_attr_put_strz(question.message(), IFLA_IFNAME, name.c_str());
    return ask(question);
}

std::optional<link_facts> look_at_link(int index) {
    if (index <= 0)
        return std::nullopt;
    return ask({RTM_GETLINK, 0, link_at(index)});
}

bool are_peers(const std::string &a, const std::string &b) {
    const std::optional<link_facts> one = look_at_link(a);
    const std::optional<link_facts> other = look_at_link(b);
    return one && other && !one->far && !other->far && one->lower == other->index &&
           other->lower == one->index;
}

int make_veth(const std::string &name, const std::string &peer, uint32_t mtu) {
    netlink_request order(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL, ifinfomsg{});
    nlmsghdr *message = order.message();
    mnl_attr_put_strz(message, IFLA_IFNAME, name.c_str());
    mnl_attr_put_u32(message, IFLA_MTU, mtu);
    nlattr *info = mnl_attr_nest_start(message, IFLA_LINKINFO);
    mnl_attr_put_strz(message, IFLA_INFO_KIND, "veth");
    nlattr *data = mnl_attr_nest_start(message, IFLA_INFO_DATA);
    nlattr *other = mnl_attr_nest_start(message, VETH_INFO_PEER);
    mnl_nlmsg_put_extra_header(message, sizeof(ifinfomsg));
    mnl_attr_put_strz(message, IFLA_IFNAME, peer.c_str());
    mnl_attr_put_u32(message, IFLA_MTU, mtu);
    for (nlattr *nest : {other, data, info})
        mnl_attr_nest_end(message, nest);
    return netlink_order(order);
}

int set_up_link(int index, uint32_t mtu, const std::string &alias) {
    ifinfomsg link = link_at(index);
    link.ifi_flags = link.ifi_change = IFF_NOARP;
    netlink_request order(RTM_SETLINK, 0, link);
    mnl_attr_put_u32(order.message(), IFLA_MTU, mtu);
    mnl_attr_put(order.message(), IFLA_IFALIAS, alias.size(), alias.data());
    return netlink_order(order);
}

int rename_link(int index, const std::string &name) {
    netlink_request order(RTM_SETLINK, 0, link_at(index));
    mnl_attr_put_strz(order.message(), IFLA_IFNAME, name.c_str());
    return netlink_order(order);
}

int switch_on(int index) {
    ifinfomsg link = link_at(index);
    link.ifi_flags = link.ifi_change = IFF_UP;
    return netlink_order({RTM_SETLINK, 0, link});
}

int remove_link(int index) {
    return netlink_order({RTM_DELLINK, 0, link_at(index)});
}

} // namespace avcore
