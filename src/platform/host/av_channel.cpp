#include "platform/host/av_channel.h"

#include "platform/host/local_connection.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

using std::chrono::milliseconds;
using time_point = av_clock::time_point;

constexpr milliseconds PAUSE_TIME{1000};
// Every message fits; the longest one-way body is a log line.
constexpr size_t MESSAGE_SIZE = 1024;

struct channel_state {
    local_connection connection;
    uint32_t connections = 0; // that were ever made
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

// Where an answer goes.
struct answer_place {
    int32_t &rc;
    std::span<std::byte> body;
    size_t &taken;             // of the body
    int *descriptor = nullptr; // null: none is wanted
};

// Of the descriptors that come with a message: one is wanted, and a second shows that there were
// more. Those without room the kernel closes.
constexpr size_t DESCRIPTORS_MAX = 2;

// The descriptor that came, -1 for none and for several.
int descriptor_of(msghdr &message) {
    const cmsghdr *head = CMSG_FIRSTHDR(&message);
    if (head == nullptr || head->cmsg_level != SOL_SOCKET || head->cmsg_type != SCM_RIGHTS)
        return -1;
    std::array<int, DESCRIPTORS_MAX> came = {};
    const size_t count = std::min((head->cmsg_len - CMSG_LEN(0)) / sizeof(int), came.size());
    memcpy(came.data(), CMSG_DATA(head), count * sizeof(int));
    if (count == 1 && (message.msg_flags & MSG_CTRUNC) == 0)
        return came.front();
    for (const int descriptor : std::span(came).first(count))
        close(descriptor);
    return -1;
}

// `descriptor` null: the kernel closes what comes with the message.
ssize_t receive(av_answer_head &head, std::span<std::byte> body, int *descriptor) {
    alignas(cmsghdr) std::array<std::byte, CMSG_SPACE(DESCRIPTORS_MAX * sizeof(int))> control;
    std::array<iovec, 2> pieces = {iovec{&head, sizeof head}, iovec{body.data(), body.size()}};
    msghdr message = {};
    message.msg_iov = pieces.data();
    message.msg_iovlen = pieces.size();
    if (descriptor != nullptr) {
        message.msg_control = control.data();
        message.msg_controllen = control.size();
    }
    const ssize_t received = recvmsg(channel.connection.fd(), &message, MSG_CMSG_CLOEXEC);
    if (received >= 0 && descriptor != nullptr)
        *descriptor = descriptor_of(message);
    return received;
}

enum class outcome { answered, too_short, too_late, connection_ended, not_asked };

// Receives until the answer to `wanted` comes; other messages, late answers among them, are dropped
// and don't buy time.
outcome receive_answer(av_message_head wanted, time_point deadline, const answer_place &into) {
    while (wait_readable(deadline)) {
        av_answer_head head = {};
        int descriptor = -1;
        const ssize_t received =
            receive(head, into.body, into.descriptor != nullptr ? &descriptor : nullptr);
        if (received < 0 && (errno == EAGAIN || errno == EINTR))
            continue;
        const auto size = static_cast<size_t>(std::max<ssize_t>(received, 0));
        const bool is_wanted = size >= sizeof head.question && head.question.op == wanted.op &&
                               head.question.seq == wanted.seq;
        if (is_wanted && size >= sizeof head) {
            into.rc = head.rc;
            into.taken = size - sizeof head;
            if (into.descriptor != nullptr)
                *into.descriptor = descriptor;
            return outcome::answered;
        }
        if (descriptor >= 0)
            close(descriptor);
        if (received <= 0)
            return outcome::connection_ended;
        if (is_wanted)
            return outcome::too_short;
    }
    return outcome::too_late;
}

outcome ask(av_op op, std::span<const av_bytes> parts, const answer_place &into,
            av_clock::duration wait) {
    const av_message_head question = {op, channel.seq++};
    if (!send_message(question, parts))
        return outcome::not_asked;
    const outcome result = receive_answer(question, av_clock::now() + wait, into);
    if (result == outcome::connection_ended)
        channel.connection.end();
    return result;
}

} // namespace

bool av_connected() {
    const auto state = channel.connection.ensure(av_socket_path);
    if (state == local_connection::state::fresh) {
        ++channel.connections;
        // The first form isn't bound by net.core.wmem_max and needs CAP_NET_ADMIN.
        constexpr int room = AV_SEND_BUFFER;
        const int fd = channel.connection.fd();
        if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &room, sizeof room) != 0)
            setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    }
    return state != local_connection::state::none;
}

uint32_t av_connection() {
    return channel.connection.fd() >= 0 ? channel.connections : 0;
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
    if (av_pauses(op))
        return false;
    const outcome result = ask(op, parts, {rc, body, taken}, wait);
    question_pause *pause = pause_of(op);
    if (result == outcome::too_late && pause != nullptr)
        pause->end = av_clock::now() + PAUSE_TIME;
    return result == outcome::answered;
}

bool av_ask_descriptor(av_op op, int &descriptor) {
    descriptor = -1;
    int32_t rc = -1;
    size_t taken = 0;
    const outcome result = ask(op, {}, {rc, {}, taken, &descriptor}, AV_ANSWER_TIME);
    if (descriptor >= 0 && rc != 0) {
        close(descriptor);
        descriptor = -1;
    }
    return result != outcome::not_asked;
}

bool av_pauses(av_op op) {
    const question_pause *pause = pause_of(op);
    return pause != nullptr && av_clock::now() < pause->end;
}
