#include "avcore/channel_server.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace avcore {
namespace {

constexpr int BACKLOG = 64;
constexpr size_t MAX_DATAGRAM = 65'536;
constexpr int DATAGRAMS_A_TURN = 512;

std::runtime_error failure(const std::string &path, const char *what) {
    return std::runtime_error("AV channel " + path + ": " + what);
}

sockaddr_un socket_address(const std::string &path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw failure(path, "the path is longer than a socket's can be");
    memcpy(address.sun_path, path.data(), path.size());
    return address;
}

bool somebody_listens(const sockaddr_un &address) {
    const unique_fd probe(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    return connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) ==
               0 ||
           errno == EAGAIN;
}

} // namespace

channel_server::channel_server(std::string path)
    : path_(std::move(path)),
      epoll_(epoll_create1(EPOLL_CLOEXEC)),
      listener_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)),
      buffer_(MAX_DATAGRAM) {
    const sockaddr_un address = socket_address(path_);
    if (!epoll_.valid() || !listener_.valid())
        throw failure(path_, strerror(errno));
    if (somebody_listens(address))
        throw failure(path_, "another program listens there");
    const auto *name = reinterpret_cast<const sockaddr *>(&address);
    if (bind(listener_.get(), name, sizeof address) != 0) {
        // Nobody answers at what is there: the socket of one that died.
        if (errno != EADDRINUSE || unlink(path_.c_str()) != 0 ||
            bind(listener_.get(), name, sizeof address) != 0)
            throw failure(path_, strerror(errno));
    }
    if (listen(listener_.get(), BACKLOG) != 0) {
        const int error = errno;
        unlink(path_.c_str());
        throw failure(path_, strerror(error));
    }
    watch_listener(true);
}

channel_server::~channel_server() {
    unlink(path_.c_str());
}

void channel_server::watch_listener(bool on) {
    if (on == listener_watched_)
        return;
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = listener_.get();
    epoll_ctl(epoll_.get(), on ? EPOLL_CTL_ADD : EPOLL_CTL_DEL, listener_.get(), &event);
    listener_watched_ = on;
}

void channel_server::accept_clients() {
    for (int taken = 0; taken < BACKLOG; ++taken) {
        unique_fd client(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!client.valid()) {
            // Out of descriptors: the others wait in the backlog until one becomes free.
            if (errno == EMFILE || errno == ENFILE)
                watch_listener(false);
            return;
        }
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.fd = client.get();
        if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, client.get(), &event) == 0)
            clients_.emplace(client.get(), std::move(client));
    }
}

bool channel_server::serve_client(int fd, const handler &handle) {
    for (int taken = 0; taken < DATAGRAMS_A_TURN; ++taken) {
        const ssize_t received = recv(fd, buffer_.data(), buffer_.size(), MSG_TRUNC);
        if (received < 0)
            return errno == EAGAIN || errno == EINTR;
        if (received == 0)
            return false;
        if (static_cast<size_t>(received) > buffer_.size())
            continue; // cut: none of ours is that long
        const std::vector<std::byte> answer =
            handle(byte_span(buffer_).first(static_cast<size_t>(received)));
        if (!answer.empty() &&
            send(fd, answer.data(), answer.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0 &&
            errno != EAGAIN)
            return false;
    }
    return true;
}

void channel_server::serve(const handler &handle) {
    std::array<epoll_event, 64> events;
    const int ready = epoll_wait(epoll_.get(), events.data(), events.size(), 0);
    for (int i = 0; i < ready; ++i) {
        const int fd = events[static_cast<size_t>(i)].data.fd;
        if (fd == listener_.get()) {
            accept_clients();
        } else if (!serve_client(fd, handle)) {
            clients_.erase(fd);
            watch_listener(true);
        }
    }
}

} // namespace avcore
