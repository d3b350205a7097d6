// Questions to the kernel over netlink, and the attributes of its answers.
#pragma once

#include "unique_fd.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <linux/pkt_cls.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <string>
#include <string_view>
#include <sys/socket.h>

namespace avcore {

struct netlink_attribute {
    unsigned short type;
    std::string_view bytes;
};

inline std::string text_of(const netlink_attribute &attribute) {
    return std::string(attribute.bytes.substr(0, attribute.bytes.find('\0')));
}

// Also those inside of a nest's bytes.
template <typename Each>
void each_attribute(std::string_view bytes, Each each) {
    rtattr head;
    while (bytes.size() >= sizeof head) {
        memcpy(&head, bytes.data(), sizeof head);
        if (head.rta_len < sizeof head || head.rta_len > bytes.size())
            return;
        each(netlink_attribute{head.rta_type,
                               bytes.substr(sizeof head, head.rta_len - sizeof head)});
        bytes.remove_prefix(std::min<size_t>(RTA_ALIGN(head.rta_len), bytes.size()));
    }
}

// Those of a message, behind a head of that size.
template <typename Each>
void each_attribute(const nlmsghdr &message, size_t head, Each each) {
    const size_t start = NLMSG_SPACE(head);
    if (message.nlmsg_len > start)
        each_attribute(
            {reinterpret_cast<const char *>(&message) + start, message.nlmsg_len - start}, each);
}

// What a datagram says of the answer that it belongs to.
struct netlink_progress {
    bool complete = false;
    int error = 0; // EINTR: what was asked about changed meanwhile
};

// Calls `each` with the messages of a datagram that the kernel sent.
template <typename Each>
netlink_progress each_message(std::byte *datagram, size_t size, Each each) {
    netlink_progress progress;
    for (size_t at = 0; at < size;) {
        auto *message = static_cast<nlmsghdr *>(static_cast<void *>(datagram + at));
        if (!NLMSG_OK(message, size - at))
            return {true, EBADMSG};
        if (message->nlmsg_flags & NLM_F_DUMP_INTR)
            progress.error = EINTR;
        if (message->nlmsg_type == NLMSG_DONE || message->nlmsg_type == NLMSG_ERROR) {
            int error = 0; // negative
            if (message->nlmsg_len >= NLMSG_LENGTH(sizeof error))
                memcpy(&error, NLMSG_DATA(message), sizeof error);
            return {true, error < 0 ? -error : progress.error};
        }
        each(*message);
        at += NLMSG_ALIGN(message->nlmsg_len);
    }
    return progress;
}

// Calls `each` with every message of the answer; with none where the kernel has nothing to say.
// Returns 0 or an error.
template <typename Head, typename Each>
int netlink_ask(int protocol, uint16_t type, const Head &head, Each each,
                uint16_t flags = NLM_F_DUMP) {
    const unique_fd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol));
    if (!fd.valid())
        return errno;
    struct {
        nlmsghdr message;
        Head head;
    } request = {};
    request.message.nlmsg_len = sizeof request;
    request.message.nlmsg_type = type;
    request.message.nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | flags);
    request.head = head;
    if (send(fd.get(), &request, sizeof request, 0) < 0)
        return errno;
    alignas(nlmsghdr) std::array<std::byte, 65'536> reply;
    int error = 0;
    for (;;) {
        const ssize_t size = recv(fd.get(), reply.data(), reply.size(), 0);
        if (size <= 0)
            return size < 0 ? errno : EBADMSG;
        const netlink_progress progress =
            each_message(reply.data(), static_cast<size_t>(size), each);
        error = error != 0 ? error : progress.error;
        if (progress.complete || flags != NLM_F_DUMP)
            return error;
    }
}

// About links, qdiscs and filters.
template <typename Head, typename Each>
void netlink_dump(uint16_t type, const Head &head, Each each, uint16_t flags = NLM_F_DUMP) {
    netlink_ask(NETLINK_ROUTE, type, head, each, flags);
}

} // namespace avcore
