#include "platform/host/av_channel.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using std::chrono::milliseconds;
using time_point = av_clock::time_point;

constexpr milliseconds RECONNECT_TIME{1000};
constexpr milliseconds PAUSE_TIME{1000};
// Every message fits; the longest one-way body is a log line.
constexpr size_t MESSAGE_SIZE = 1024;

struct channel_state {
    int fd = -1;
    bool tried = false;
    time_point last_try;
    uint32_t seq = 0;
};
channel_state channel;

// The questions that packets wait for. After an answer that took too long those of its op fail at
// once for a while: a platform that is slow with names costs neither the verdicts of flows that
// have theirs nor the answers to other questions.
struct question_pause {
    av_op op;
    time_point end;
};
question_pause pauses[] = {
    {av_op::rflow_get_roam, {}},
    {av_op::dnscache_get_name, {}},
    {av_op::urlfilter_get_category, {}},
};

question_pause *pause_of(av_op op) {
    const auto found = std::find_if(std::begin(pauses), std::end(pauses),
                                    [op](const question_pause &pause) { return pause.op == op; });
    return found != std::end(pauses) ? found : nullptr;
}

void disconnect() {
    close(channel.fd);
    channel.fd = -1;
}

bool connect_channel() {
    const time_point now = av_clock::now();
    if (channel.tried && now - channel.last_try < RECONNECT_TIME)
        return false;
    channel.tried = true;
    channel.last_try = now;

    const char *path = av_socket_path();
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
    constexpr int room = AV_SEND_BUFFER;
    if (setsockopt(channel.fd, SOL_SOCKET, SO_SNDBUFFORCE, &room, sizeof room) != 0)
        setsockopt(channel.fd, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    if (connect(channel.fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        disconnect();
        return false;
    }
    return true;
}

// Sends a datagram. A connection that is found gone is closed and, where a try is due, replaced;
// one that is merely full stays.
bool send_datagram(std::span<const std::byte> datagram) {
    while (av_connected()) {
        if (send(channel.fd, datagram.data(), datagram.size(), MSG_NOSIGNAL) >= 0)
            return true;
        if (errno == EAGAIN || errno == EINTR || errno == EMSGSIZE || errno == ENOBUFS)
            return false;
        disconnect();
    }
    return false;
}

// The parts are gathered here, for a system call with five pieces costs a packet more than the
// copy.
bool send_message(av_message_head head, std::span<const av_bytes> parts) {
    std::array<std::byte, MESSAGE_SIZE> message;
    memcpy(message.data(), &head, sizeof head);
    size_t size = sizeof head;
    for (const av_bytes part : parts) {
        if (part.size() > message.size() - size)
            return false;
        memcpy(message.data() + size, part.data(), part.size());
        size += part.size();
    }
    return send_datagram(std::span(message).first(size));
}

// Waits until the connection is readable. Returns false at the deadline.
bool wait_readable(time_point deadline) {
    for (;;) {
        const auto left = std::chrono::ceil<milliseconds>(deadline - av_clock::now());
        if (left.count() <= 0)
            return false;
        pollfd wanted = {channel.fd, POLLIN, 0};
        if (poll(&wanted, 1, static_cast<int>(left.count())) > 0)
            return true;
    }
}

enum class outcome { answered, too_short, too_late, connection_ended };

// Receives until the answer to `wanted` comes; other messages, late answers among them, are dropped
// and don't buy time.
outcome receive_answer(av_message_head wanted, time_point deadline, int32_t &rc,
                       std::span<std::byte> body) {
    while (wait_readable(deadline)) {
        av_answer_head head = {};
        std::array<iovec, 2> pieces = {iovec{&head, sizeof head}, iovec{body.data(), body.size()}};
        msghdr message = {};
        message.msg_iov = pieces.data();
        message.msg_iovlen = pieces.size();
        const ssize_t received = recvmsg(channel.fd, &message, 0);
        if (received < 0 && (errno == EAGAIN || errno == EINTR))
            continue;
        if (received <= 0)
            return outcome::connection_ended;
        const auto size = static_cast<size_t>(received);
        if (size < sizeof head.question || head.question.op != wanted.op ||
            head.question.seq != wanted.seq)
            continue;
        rc = head.rc;
        const bool whole = size >= sizeof head && (rc != 0 || size - sizeof head >= body.size());
        return whole ? outcome::answered : outcome::too_short;
    }
    return outcome::too_late;
}

} // namespace

bool av_connected() {
    return channel.fd >= 0 || connect_channel();
}

int av_send(av_op op, std::span<const av_bytes> parts) {
    return send_message({op, channel.seq++}, parts) ? 0 : -1;
}

bool av_ask(av_op op, std::span<const av_bytes> parts, int32_t &rc, std::span<std::byte> body,
            av_clock::duration wait) {
    question_pause *pause = pause_of(op);
    if (pause != nullptr && av_clock::now() < pause->end)
        return false;
    const av_message_head question = {op, channel.seq++};
    if (!send_message(question, parts))
        return false;
    const outcome result = receive_answer(question, av_clock::now() + wait, rc, body);
    if (result == outcome::connection_ended)
        disconnect();
    if (result == outcome::too_late && pause != nullptr)
        pause->end = av_clock::now() + PAUSE_TIME;
    return result == outcome::answered;
}
