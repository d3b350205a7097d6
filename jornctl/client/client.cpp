#include "jornctl/client/client.h"

#include "control/records/message.h"
#include "jornctl/base/failure.h"
#include "shared/unique_fd.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

namespace jornctl {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr size_t REPLY_MAX = 122'880; // no answer of the daemon is longer

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

} // namespace jornctl
