#include "avcore/base/send_message.h"

#include <array>
#include <cstring>
#include <sys/socket.h>
#include <sys/uio.h>

namespace avcore {

ssize_t send_message(int fd, std::span<const std::byte> datagram, int descriptor) {
    constexpr int flags = MSG_NOSIGNAL | MSG_DONTWAIT;
    if (descriptor < 0)
        return send(fd, datagram.data(), datagram.size(), flags);
    alignas(cmsghdr) std::array<std::byte, CMSG_SPACE(sizeof descriptor)> control = {};
    iovec piece = {const_cast<std::byte *>(datagram.data()), datagram.size()};
    msghdr message = {};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr *head = CMSG_FIRSTHDR(&message);
    head->cmsg_level = SOL_SOCKET;
    head->cmsg_type = SCM_RIGHTS;
    head->cmsg_len = CMSG_LEN(sizeof descriptor);
    memcpy(CMSG_DATA(head), &descriptor, sizeof descriptor);
    return sendmsg(fd, &message, flags);
}

} // namespace avcore
