#include "avcore/link.h"

#include "unique_fd.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

namespace avcore {
namespace {

struct link_request {
    nlmsghdr head;
    ifinfomsg link;
    rtattr name_head;
    char name[IFNAMSIZ];
};

link_request request_for(const std::string &name) {
    link_request request = {};
    request.head.nlmsg_len = sizeof request;
    request.head.nlmsg_type = RTM_GETLINK;
    request.head.nlmsg_flags = NLM_F_REQUEST;
    request.name_head.rta_type = IFLA_IFNAME;
    request.name_head.rta_len = RTA_LENGTH(sizeof request.name);
    memcpy(request.name, name.data(), name.size());
    return request;
}

template <typename Value>
void take(const rtattr &attribute, Value &value) {
    if (RTA_PAYLOAD(&attribute) >= sizeof value)
        memcpy(&value, RTA_DATA(&attribute), sizeof value);
}

link_facts facts_in(nlmsghdr &message) {
    auto *link = static_cast<ifinfomsg *>(NLMSG_DATA(&message));
    link_facts facts;
    facts.index = link->ifi_index;
    facts.running = (link->ifi_flags & IFF_RUNNING) != 0;
    auto left = static_cast<int>(IFLA_PAYLOAD(&message));
    for (rtattr *attribute = IFLA_RTA(link); RTA_OK(attribute, left);
         attribute = RTA_NEXT(attribute, left)) {
        if (attribute->rta_type == IFLA_LINK)
            take(*attribute, facts.lower);
        else if (attribute->rta_type == IFLA_LINK_NETNSID)
            facts.far = true;
        else if (attribute->rta_type == IFLA_CARRIER_DOWN_COUNT)
            take(*attribute, facts.times_down);
    }
    return facts;
}

} // namespace

std::optional<link_facts> look_at_link(const std::string &name) {
    if (name.empty() || name.size() >= IFNAMSIZ)
        return std::nullopt;
    const unique_fd socket_fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    const link_request request = request_for(name);
    alignas(nlmsghdr) std::array<std::byte, 32'768> reply;
    if (send(socket_fd.get(), &request, sizeof request, 0) < 0)
        return std::nullopt;
    const ssize_t size = recv(socket_fd.get(), reply.data(), reply.size(), 0);
    auto *message = reinterpret_cast<nlmsghdr *>(reply.data());
    if (size < static_cast<ssize_t>(NLMSG_LENGTH(sizeof(ifinfomsg))) ||
        !NLMSG_OK(message, static_cast<unsigned>(size)) || message->nlmsg_type != RTM_NEWLINK)
        return std::nullopt;
    return facts_in(*message);
}

bool are_peers(const std::string &a, const std::string &b) {
    const std::optional<link_facts> one = look_at_link(a);
    const std::optional<link_facts> other = look_at_link(b);
    return one && other && !one->far && !other->far && one->lower == other->index &&
           other->lower == one->index;
}

} // namespace avcore
