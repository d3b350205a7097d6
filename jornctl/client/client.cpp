#include "jornctl/client/client.h"

#include "control/records/arc.h"
#include "control/records/commands.h"
#include "control/records/message.h"
#include "jornctl/base/failure.h"
#include "shared/unique_fd.h"
#include "webfilter/records/web.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

namespace jornctl {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr size_t REPLY_MAX = 122'880; // no answer of the daemon is longer
constexpr uint32_t CMD_NOTHING = 0;   // the daemon has no such command, and closes the connection

// One exchange: a connection with the time by which it has to be over.
class exchange {
public:
    exchange(const std::string &path, milliseconds patience)
        : path_(path), deadline_(steady_clock::now() + patience) {
        connect_to(path, patience);
    }

    void send(std::string_view message) {
        // One write: the daemon reads once. It answers when it wants; nothing more comes from us.
        const ssize_t sent = ::send(socket_.get(), message.data(), message.size(), MSG_NOSIGNAL);
        if (sent < 0)
            fail(errno == EAGAIN ? "doesn't read" : strerror(errno));
        if (static_cast<size_t>(sent) < message.size())
            fail("doesn't read");
        shutdown(socket_.get(), SHUT_WR);
    }

    std::string receive() {
        std::string reply;
        std::array<char, 65'536> piece;
        while (reply.size() <= REPLY_MAX) {
            await_answer();
            const ssize_t got = recv(socket_.get(), piece.data(), piece.size(), MSG_DONTWAIT);
            if (got == 0)
                return reply;
            if (got > 0)
                reply.append(piece.data(), static_cast<size_t>(got));
            else if (errno != EINTR && errno != EAGAIN)
                fail(strerror(errno));
        }
        fail("answers more than a daemon can");
    }

    // The daemon is through with it.
    bool is_over() const {
        pollfd waiting = {socket_.get(), POLLRDHUP, 0};
        return poll(&waiting, 1, 0) != 0;
    }

    pid_t listener() const {
        ucred peer = {};
        socklen_t size = sizeof peer;
        return getsockopt(socket_.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 ? peer.pid : 0;
    }

private:
    void connect_to(const std::string &path, milliseconds patience) {
        sockaddr_un address = {};
        if (path.size() >= sizeof address.sun_path)
            throw refused("the path of the socket has more than " +
                          std::to_string(sizeof address.sun_path - 1) + " characters: " + path);
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, path.data(), path.size());
        socket_ = unique_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(patience).count();
        // connect waits, too, for a busy daemon
        const timeval limit = {static_cast<time_t>(seconds), 0};
        setsockopt(socket_.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        if (connect(socket_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) ==
            0)
            return;
        if (errno == EACCES || errno == EPERM)
            throw refused("you may not use the socket " + path + ": " + strerror(errno));
        throw no_daemon("no daemon at " + path + ": " +
                        (errno == EAGAIN ? "it takes no connection" : strerror(errno)));
    }

    void await_answer() {
        const auto left = std::chrono::ceil<milliseconds>(deadline_ - steady_clock::now()).count();
        pollfd waiting = {socket_.get(), POLLIN, 0};
        if (left <= 0 || poll(&waiting, 1, static_cast<int>(left)) == 0)
            fail("doesn't answer");
    }

    [[noreturn]] void fail(const char *what) const {
        throw no_daemon("the daemon at " + path_ + ": " + what);
    }

    const std::string &path_;
    steady_clock::time_point deadline_;
    unique_fd socket_;
};

// While it lives, nothing but the kernel's own work takes the processor away, where the user may
// have that.
class undisturbed {
public:
    undisturbed() : usual_(sched_getscheduler(0)) {
        const sched_param lowest = {.sched_priority = sched_get_priority_min(SCHED_FIFO)};
        sched_getparam(0, &usual_priority_);
        sched_setscheduler(0, SCHED_FIFO, &lowest);
    }
    undisturbed(const undisturbed &) = delete;
    undisturbed &operator=(const undisturbed &) = delete;
    ~undisturbed() { sched_setscheduler(0, usual_, &usual_priority_); }

private:
    int usual_;
    sched_param usual_priority_ = {};
};

// A command that changes nothing and has the daemon write a file, which takes it longer than these
// take to be sent: where it can be, one that they have it write, too.
command slow_beside(const std::vector<command> &few) {
    const bool is_web = std::ranges::any_of(few, [](const command &each) {
        return each.number == CMD_WEB_POLICY_CFG_REQ || each.number == CMD_WEB_INTF_CFG_REQ;
    });
    if (is_web)
        return {CMD_WEB_INTF_CFG_REQ, record_bytes(web_intf_wire())}; // of no operation
    arc_policy_log_cfg nobody = {};
    nobody.name[0] = '\n'; // is in no policy's name
    return {CMD_ARC_POLICY_LOG_CFG_REQ, record_bytes(nobody)};
}

// Commands that the daemon takes together, behind a slow one, the gate.
class joint_exchange {
public:
    joint_exchange(const std::string &path, milliseconds patience, size_t count)
        : gate_(path, patience) {
        talks_.reserve(count);
        for (size_t i = 0; i < count; ++i)
            talks_.emplace_back(path, patience);
    }

    // Returns whether the gate's command was still running when the last message was there: the
    // daemon looks for them behind it. Returns once none of those that were sent is still to be
    // run.
    bool send(const std::string &slow, const std::vector<std::string> &messages) {
        const bool are_together = send_behind_gate(slow, messages);
        bool are_taken = is_taken(gate_);
        for (size_t i = 0; i < begun_; ++i)
            are_taken = is_taken(talks_[i]) && are_taken;
        return are_together && are_taken;
    }

private:
    bool send_behind_gate(const std::string &slow, const std::vector<std::string> &messages) {
        const undisturbed now;
        try {
            gate_.send(slow);
            while (begun_ < talks_.size() && !gate_.is_over()) {
                ++begun_;
                talks_[begun_ - 1].send(messages[begun_ - 1]);
            }
        } catch (const no_daemon &) { // it made room for somebody else's connection
            return false;
        }
        return begun_ == talks_.size() && !gate_.is_over();
    }

    static bool is_taken(exchange &talk) {
        try {
            talk.receive();
            return true;
        } catch (const no_daemon &) {
            return false;
        }
    }

    exchange gate_;
    std::vector<exchange> talks_;
    size_t begun_ = 0;
};

} // namespace

std::string make_message(const command &sent) {
    if (sent.payload.size() > COMMAND_PAYLOAD_SIZE)
        throw refused("a payload of " + std::to_string(sent.payload.size()) +
                      " bytes; the daemon takes " + std::to_string(COMMAND_PAYLOAD_SIZE));
    cmd_msg_hdr header = {};
    header.cmd = sent.number;
    header.len = static_cast<uint32_t>(sent.payload.size());
    return record_bytes(header) + sent.payload;
}

std::string client::send(const command &sent) const {
    const std::string message = make_message(sent);
    exchange talk(socket_path_, patience_);
    talk.send(message);
    return talk.receive();
}

pid_t client::listener() const {
    return exchange(socket_path_, patience_).listener();
}

bool client::send_together(const std::vector<command> &few) const {
    std::vector<std::string> messages(few.size());
    std::ranges::transform(few, messages.begin(), make_message);
    joint_exchange joint(socket_path_, patience_, few.size());
    // Connections are accepted in their order: behind this one's answer all are set aside.
    send({CMD_NOTHING, {}});
    return joint.send(make_message(slow_beside(few)), messages);
}

} // namespace jornctl
