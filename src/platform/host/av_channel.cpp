#include "platform/host/av_channel.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr char DEFAULT_PATH[] = "/var/run/av_core.sock";
constexpr int64_t RECONNECT_MS = 1000;
constexpr int64_t ANSWER_MS = 500;
// Every message fits; the longest one-way body is a log line.
constexpr size_t MESSAGE_SIZE = 1024;
// Room for the verdicts of all 400 frames that a feeder may have outstanding, even when the
// listener is kept from running for a while: the default holds 167 of them.
constexpr int SEND_BUFFER = 1 << 20;

struct message_header {
    uint32_t op;
    uint32_t seq;
};

struct answer_header {
    uint32_t op;
    uint32_t seq;
    int32_t rc;
};

struct channel_state {
    int fd = -1;
    bool tried = false;
    int64_t last_try_ms = 0;
    uint32_t seq = 0;
};
channel_state channel;

int64_t now_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

void disconnect() {
    close(channel.fd);
    channel.fd = -1;
}

bool connect_channel() {
    const int64_t now = now_ms();
    if (channel.tried && now - channel.last_try_ms < RECONNECT_MS)
        return false;
    channel.tried = true;
    channel.last_try_ms = now;

    const char *chosen = getenv("JORN_AV_SOCK");
    const char *path = chosen != nullptr && chosen[0] != '\0' ? chosen : DEFAULT_PATH;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof address.sun_path)
        return false;
    memcpy(address.sun_path, path, strlen(path));

    // Non-blocking, so that a listener with a full backlog counts as absent.
    channel.fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (channel.fd < 0)
        return false;
    // The first form isn't bound by net.core.wmem_max and needs CAP_NET_ADMIN.
    if (setsockopt(channel.fd, SOL_SOCKET, SO_SNDBUFFORCE, &SEND_BUFFER, sizeof SEND_BUFFER) != 0)
        setsockopt(channel.fd, SOL_SOCKET, SO_SNDBUF, &SEND_BUFFER, sizeof SEND_BUFFER);
    if (connect(channel.fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        disconnect();
        return false;
    }
    return true;
}

// Sends one message; a connection that is gone is closed, one that is merely full stays. The parts
// are gathered here, for a system call with five pieces costs a packet more than the copy.
bool send_message(av_op op, uint32_t seq, std::span<const av_bytes> parts) {
    if (!av_connected())
        return false;
    std::array<std::byte, MESSAGE_SIZE> message;
    const message_header header = {static_cast<uint32_t>(op), seq};
    memcpy(message.data(), &header, sizeof header);
    size_t size = sizeof header;
    for (const av_bytes part : parts) {
        if (part.size() > message.size() - size)
            return false;
        memcpy(message.data() + size, part.data(), part.size());
        size += part.size();
    }

    if (send(channel.fd, message.data(), size, MSG_NOSIGNAL) >= 0)
        return true;
    if (errno != EAGAIN && errno != EINTR && errno != EMSGSIZE && errno != ENOBUFS)
        disconnect();
    return false;
}

// Waits until the connection is readable or `deadline_ms` has passed.
bool wait_readable(int64_t deadline_ms) {
    for (;;) {
        const int64_t left_ms = deadline_ms - now_ms();
        if (left_ms <= 0)
            return false;
        pollfd wanted = {channel.fd, POLLIN, 0};
        const int ready = poll(&wanted, 1, static_cast<int>(left_ms));
        if (ready > 0)
            return true;
        if (ready < 0 && errno != EINTR)
            return false;
    }
}

// Receives until the answer to `wanted` comes; other messages are dropped and don't buy time.
bool receive_answer(message_header wanted, int32_t &rc, std::span<std::byte> body) {
    const int64_t deadline_ms = now_ms() + ANSWER_MS;
    while (wait_readable(deadline_ms)) {
        answer_header header = {};
        std::array<iovec, 2> pieces = {iovec{&header, sizeof header},
                                       iovec{body.data(), body.size()}};
        msghdr message = {};
        message.msg_iov = pieces.data();
        message.msg_iovlen = pieces.size();
        const ssize_t received = recvmsg(channel.fd, &message, 0);
        if (received < 0 && (errno == EAGAIN || errno == EINTR))
            continue;
        if (received <= 0)
            return false;
        const auto size = static_cast<size_t>(received);
        if (size < sizeof header || header.op != wanted.op || header.seq != wanted.seq)
            continue;
        rc = header.rc;
        return rc != 0 || size - sizeof header >= body.size();
    }
    return false;
}

} // namespace

bool av_connected() {
    return channel.fd >= 0 || connect_channel();
}

int av_send(av_op op, std::span<const av_bytes> parts) {
    return send_message(op, channel.seq++, parts) ? 0 : -1;
}

bool av_ask(av_op op, std::span<const av_bytes> parts, int32_t &rc, std::span<std::byte> body) {
    const message_header question = {static_cast<uint32_t>(op), channel.seq++};
    if (!send_message(op, question.seq, parts))
        return false;
    if (receive_answer(question, rc, body))
        return true;
    disconnect();
    return false;
}
