#include "platform/host/local_connection.h"

#include "core/system/clock.h"
#include "core/system/descriptors.h"

#include <cerrno>
#include <cstring>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int64_t RECONNECT_MS = 1000;

} // namespace

local_connection::state local_connection::ensure(const char *(*path)()) {
    if (fd_ >= 0)
        return state::kept;
    const int64_t now_ms = coarse_monotonic_ms();
    if (tried_ && now_ms - last_try_ms_ < RECONNECT_MS)
        return state::none;
    tried_ = true;
    last_try_ms_ = now_ms;

    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string_view name = path();
    if (name.size() >= sizeof address.sun_path)
        return state::none;
    memcpy(address.sun_path, name.data(), name.size());
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

void local_connection::move_behind_capture() {
    fd_ = behind_capture(fd_);
}
