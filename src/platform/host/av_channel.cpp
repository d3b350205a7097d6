#include "platform/host/av_channel.h"

#include "platform/host/local_connection.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

namespace {

using std::chrono::milliseconds;
using time_point = av_clock::time_point;

constexpr milliseconds PAUSE_TIME{1000};
// Every message fits; the longest one-way body is a log line.
constexpr size_t MESSAGE_SIZE = 1024;

struct channel_state {
    local_connection connection;
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

// Sends a datagram. A connection that is found gone is, where a try is due, replaced; one that is
// merely full stays.
bool send_datagram(std::span<const std::byte> datagram) {
    while (av_connected()) {
        const auto result = channel.connection.send(datagram);
        if (result != local_connection::sent::ended)
            return result == local_connection::sent::yes;
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
        pollfd wanted = {channel.connection.fd(), POLLIN, 0};
        if (poll(&wanted, 1, static_cast<int>(left.count())) > 0)
            return true;
    }
}

enum class outcome { answered, too_short, too_late, connection_ended };

// Receives until the answer to `wanted` comes; other messages, late answers among them, are dropped
// and don't buy time.
outcome receive_answer(av_message_head wanted, time_point deadline, int32_t &rc,
                       std::span<std::byte> body, size_t &taken) {
    while (wait_readable(deadline)) {
        av_answer_head head = {};
        std::array<iovec, 2> pieces = {iovec{&head, sizeof head}, iovec{body.data(), body.size()}};
        msghdr message = {};
        message.msg_iov = pieces.data();
        message.msg_iovlen = pieces.size();
        const ssize_t received = recvmsg(channel.connection.fd(), &message, 0);
        if (received < 0 && (errno == EAGAIN || errno == EINTR))
            continue;
        if (received <= 0)
            return outcome::connection_ended;
        const auto size = static_cast<size_t>(received);
        if (size < sizeof head.question || head.question.op != wanted.op ||
            head.question.seq != wanted.seq)
            continue;
        rc = head.rc;
        taken = size - std::min(size, sizeof head);
        return size >= sizeof head ? outcome::answered : outcome::too_short;
    }
    return outcome::too_late;
}

} // namespace

bool av_connected() {
    const auto state = channel.connection.ensure(av_socket_path);
    if (state == local_connection::state::fresh) {
        // The first form isn't bound by net.core.wmem_max and needs CAP_NET_ADMIN.
        constexpr int room = AV_SEND_BUFFER;
        const int fd = channel.connection.fd();
        if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &room, sizeof room) != 0)
            setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    }
    return state != local_connection::state::none;
}

uint32_t av_messages() {
    return channel.seq;
}

int av_send(av_op op, std::span<const av_bytes> parts) {
    return send_message({op, channel.seq++}, parts) ? 0 : -1;
}

bool av_ask(av_op op, std::span<const av_bytes> parts, int32_t &rc, std::span<std::byte> body,
            av_clock::duration wait) {
    size_t taken = 0;
    return av_ask_some(op, parts, rc, body, taken, wait) && (rc != 0 || taken >= body.size());
}

bool av_ask_some(av_op op, std::span<const av_bytes> parts, int32_t &rc, std::span<std::byte> body,
                 size_t &taken, av_clock::duration wait) {
    question_pause *pause = pause_of(op);
    if (pause != nullptr && av_clock::now() < pause->end)
        return false;
    const av_message_head question = {op, channel.seq++};
    if (!send_message(question, parts))
        return false;
    const outcome result = receive_answer(question, av_clock::now() + wait, rc, body, taken);
    if (result == outcome::connection_ended)
        channel.connection.end();
    if (result == outcome::too_late && pause != nullptr)
        pause->end = av_clock::now() + PAUSE_TIME;
    return result == outcome::answered;
}
