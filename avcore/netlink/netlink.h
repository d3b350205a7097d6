// Questions and orders to the kernel over netlink (RFC 3549), with libmnl, and the attributes of
// its answers. All numbers are in the machine's byte order.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <libmnl/libmnl.h>
#include <optional>
#include <string>
#include <type_traits>

namespace avcore {

// One message under way to the kernel. Attributes are added by mnl_attr_put_... on message(); they
// and the head have 1,024 bytes.
class netlink_request {
public:
    // `head`: of the message's type, as rtnetlink's ifinfomsg.
    template <typename Head>
    netlink_request(uint16_t type, uint16_t flags, const Head &head) {
        static_assert(std::is_trivially_copyable_v<Head>);
        nlmsghdr *message = mnl_nlmsg_put_header(buffer_.data());
        message->nlmsg_type = type;
        message->nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | flags);
        memcpy(mnl_nlmsg_put_extra_header(message, sizeof head), &head, sizeof head);
    }

    nlmsghdr *message() { return static_cast<nlmsghdr *>(static_cast<void *>(buffer_.data())); }

private:
    alignas(nlmsghdr) std::array<std::byte, 1024> buffer_ = {};
};

using netlink_visitor = std::function<void(const nlmsghdr &)>;

// Sends it and calls `each` with every message of the answer, once the answer is complete; a list
// that changed while the kernel wrote it is asked for again. Returns 0 or an errno value, with
// which nothing was called. `protocol`: NETLINK_ROUTE, for links, qdiscs and filters, or another.
int netlink_ask(int protocol, netlink_request request, const netlink_visitor &each);
// To NETLINK_ROUTE. Its flags share bits with those of a list, which ends by itself.
inline int netlink_order(netlink_request request) {
    request.message()->nlmsg_flags |= NLM_F_ACK;
    return netlink_ask(NETLINK_ROUTE, request, [](const nlmsghdr &) {});
}

// The head of a message; none where it is shorter.
template <typename Head>
std::optional<Head> head_of(const nlmsghdr &message) {
    Head head;
    if (mnl_nlmsg_get_payload_len(&message) < sizeof head)
        return std::nullopt;
    memcpy(&head, mnl_nlmsg_get_payload(&message), sizeof head);
    return head;
}

// False where there are fewer bytes than that.
template <typename Value>
bool read(const nlattr &attribute, Value &value) {
    if (mnl_attr_get_payload_len(&attribute) < sizeof value)
        return false;
    memcpy(&value, mnl_attr_get_payload(&attribute), sizeof value);
    return true;
}

// As far as its NUL, or its end.
std::string text_of(const nlattr &attribute);

// Those of a message, behind a head of that size.
template <typename Each>
void each_attribute(const nlmsghdr &message, size_t head, Each each) {
    const auto *end = static_cast<const char *>(mnl_nlmsg_get_payload_tail(&message));
    const auto *attribute =
        static_cast<const nlattr *>(mnl_nlmsg_get_payload_offset(&message, head));
    for (;
         mnl_attr_ok(attribute, static_cast<int>(end - reinterpret_cast<const char *>(attribute)));
         attribute = mnl_attr_next(attribute))
        each(*attribute);
}

// Those inside of a nest.
template <typename Each>
void each_nested(const nlattr &nest, Each each) {
    const auto *start = static_cast<const char *>(mnl_attr_get_payload(&nest));
    const char *end = start + mnl_attr_get_payload_len(&nest);
    const auto *attribute = static_cast<const nlattr *>(mnl_attr_get_payload(&nest));
    for (;
         mnl_attr_ok(attribute, static_cast<int>(end - reinterpret_cast<const char *>(attribute)));
         attribute = mnl_attr_next(attribute))
        each(*attribute);
}

} // namespace avcore
