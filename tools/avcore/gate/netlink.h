// Questions to the kernel over rtnetlink, and the attributes of its answers.
#pragma once

#include "unique_fd.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <linux/pkt_cls.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <string>
#include <string_view>
#include <sys/socket.h>

namespace avcore {

inline std::string_view bytes_of(const rtattr &attribute) {
    return {static_cast<const char *>(RTA_DATA(&attribute)), RTA_PAYLOAD(&attribute)};
}

inline std::string text_of(const rtattr &attribute) {
    const std::string_view bytes = bytes_of(attribute);
    return std::string(bytes.substr(0, bytes.find('\0')));
}

template <typename Each>
void each_attribute(std::string_view bytes, Each each) {
    auto left = static_cast<int>(bytes.size());
    for (auto *attribute = reinterpret_cast<const rtattr *>(bytes.data()); RTA_OK(attribute, left);
         attribute = RTA_NEXT(attribute, left))
        each(*attribute);
}

template <typename Each>
void each_attribute(const rtattr &nest, Each each) {
    each_attribute(bytes_of(nest), each);
}

// Those of a message, behind a head of that size.
template <typename Each>
void each_attribute(const nlmsghdr &message, size_t head, Each each) {
    const size_t start = NLMSG_SPACE(head);
    if (message.nlmsg_len > start)
        each_attribute(
            {reinterpret_cast<const char *>(&message) + start, message.nlmsg_len - start}, each);
}

// Calls `each` with every message of the answer; with none where the kernel has nothing to say.
template <typename Head, typename Each>
void netlink_dump(uint16_t type, const Head &head, Each each, uint16_t flags = NLM_F_DUMP) {
    const unique_fd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    struct {
        nlmsghdr message;
        Head head;
    } request = {};
    request.message.nlmsg_len = sizeof request;
    request.message.nlmsg_type = type;
    request.message.nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | flags);
    request.head = head;
    if (send(fd.get(), &request, sizeof request, 0) < 0)
        return;
    alignas(nlmsghdr) std::array<std::byte, 65'536> reply;
    for (;;) {
        const ssize_t size = recv(fd.get(), reply.data(), reply.size(), 0);
        if (size <= 0)
            return;
        auto left = static_cast<unsigned>(size);
        for (auto *message = reinterpret_cast<nlmsghdr *>(reply.data()); NLMSG_OK(message, left);
             message = NLMSG_NEXT(message, left)) {
            if (message->nlmsg_type == NLMSG_DONE || message->nlmsg_type == NLMSG_ERROR)
                return;
            each(*message);
        }
        if (flags != NLM_F_DUMP)
            return;
    }
}

} // namespace avcore
