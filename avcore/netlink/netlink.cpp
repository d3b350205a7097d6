#include "avcore/netlink/netlink.h"

#include <array>
#include <cerrno>
#include <memory>
#include <sys/socket.h>
#include <vector>

namespace avcore {
namespace {

constexpr int TRIES = 5; // of a list during which something came or went

struct closer {
    void operator()(mnl_socket *socket) const { mnl_socket_close(socket); }
};

using datagram = std::vector<std::byte>;

int keep(const nlmsghdr *message, void *kept) {
    const auto *bytes = static_cast<const std::byte *>(static_cast<const void *>(message));
    static_cast<std::vector<datagram> *>(kept)->emplace_back(bytes, bytes + message->nlmsg_len);
    return MNL_CB_OK;
}

// 0 or an errno value.
int ask_once(int protocol, const nlmsghdr &request, std::vector<datagram> &answer) {
    const std::unique_ptr<mnl_socket, closer> socket(mnl_socket_open2(protocol, SOCK_CLOEXEC));
    if (!socket || mnl_socket_sendto(socket.get(), &request, request.nlmsg_len) < 0)
        return errno;
    alignas(nlmsghdr) std::array<std::byte, 65'536> bytes; // written by the kernel
    for (int state = MNL_CB_OK; state > MNL_CB_STOP;) {
        const ssize_t size = mnl_socket_recvfrom(socket.get(), bytes.data(), bytes.size());
        if (size < 0)
            return errno;
        state = mnl_cb_run(bytes.data(), static_cast<size_t>(size), 0, 0, keep, &answer);
        if (state < MNL_CB_STOP)
            return errno;
    }
    return 0;
}

} // namespace

int netlink_ask(int protocol, netlink_request request, const netlink_visitor &each) {
    nlmsghdr &message = *request.message();
    if ((message.nlmsg_flags & NLM_F_DUMP) != NLM_F_DUMP) // a list has an end of its own
        message.nlmsg_flags |= NLM_F_ACK;
    std::vector<datagram> answer;
    int error = EINTR;
    for (int i = 0; i < TRIES && error == EINTR; i++) {
        answer.clear();
        error = ask_once(protocol, message, answer);
    }
    if (error == 0)
        for (const datagram &each_message : answer)
            each(*static_cast<const nlmsghdr *>(static_cast<const void *>(each_message.data())));
    return error;
}

std::string text_of(const nlattr &attribute) {
    const auto *start = static_cast<const char *>(mnl_attr_get_payload(&attribute));
    return {start, strnlen(start, mnl_attr_get_payload_len(&attribute))};
}

} // namespace avcore
