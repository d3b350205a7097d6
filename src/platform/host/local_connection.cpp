#include "platform/host/local_connection.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr std::chrono::milliseconds RECONNECT_TIME{1000};

} // namespace

local_connection::state local_connection::ensure(const char *path) {
    if (fd_ >= 0)
        return state::kept;
    const clock::time_point now = clock::now();
    if (tried_ && now - last_try_ < RECONNECT_TIME)
        return state::none;
    tried_ = true;
    last_try_ = now;

    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof address.sun_path)
        return state::none;
    memcpy(address.sun_path, path, strlen(path));
    fd_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd_ < 0)
        return state::none;
    if (connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        end();
        return state::none;
    }
    return state::fresh;
}

local_connection::sent local_connection::send(std::span<const std::byte> datagram) {
    if (::send(fd_, datagram.data(), datagram.size(), MSG_NOSIGNAL) >= 0)
        return sent::yes;
    if (errno == EAGAIN || errno == EINTR || errno == EMSGSIZE || errno == ENOBUFS)
        return sent::doesnt_fit;
    end();
    return sent::ended;
}

void local_connection::end() {
    close(fd_);
    fd_ = -1;
}

void local_connection::renumber(int lowest) {
    const int moved = fcntl(fd_, F_DUPFD_CLOEXEC, lowest);
    if (moved < 0)
        return;
    close(fd_);
    fd_ = moved;
}
