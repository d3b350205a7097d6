#include "avcore/channel/channel_server.h"

#include "avcore/base/send_message.h"
#include "shared/av_questions.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <sys/epoll.h>
#include <sys/socket.h>

namespace avcore {
namespace {

constexpr int ACCEPTED_A_TURN = 64;
constexpr size_t MAX_DATAGRAM = 65'536;
constexpr int DATAGRAMS_A_TURN = 512;

} // namespace

channel_server::channel_server(std::string path)
    : epoll_(epoll_create1(EPOLL_CLOEXEC)),
      listener_("AV channel", std::move(path)),
      buffer_(MAX_DATAGRAM) {
    if (!epoll_.valid())
        throw std::runtime_error(std::string("AV channel: ") + strerror(errno));
    watch_listener();
}

void channel_server::watch_listener() {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = listener_.fd();
    epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, listener_.fd(), &event);
}

void channel_server::accept_clients(int64_t now_ms) {
    const auto take = [this] {
        unique_fd accepted = listener_.accept();
        if (!accepted.valid())
            return false;
        epoll_event event = {};
        event.events = EPOLLIN;
        const int fd = event.data.fd = accepted.get();
        if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) == 0)
            clients_.emplace(fd, client{std::move(accepted)});
        return true;
    };
    if (!pause_.take_some(ACCEPTED_A_TURN, now_ms, take))
        epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, listener_.fd(), nullptr);
}

void channel_server::note_sender(client &sender, byte_span datagram) {
    av_op op;
    if (sender.is_daemon || datagram.size() < sizeof op)
        return;
    memcpy(&op, datagram.data(), sizeof op);
    if (is_tool_question(op))
        return;
    sender.is_daemon = true;
    ++daemons_;
    ++connects_;
}

bool channel_server::serve_client(client &served, const handler &handle) {
    const int fd = served.fd.get();
    for (int taken = 0; taken < DATAGRAMS_A_TURN; ++taken) {
        const ssize_t received = recv(fd, buffer_.data(), buffer_.size(), MSG_TRUNC);
        if (received < 0)
            return errno == EAGAIN || errno == EINTR;
        if (received == 0)
            return false;
        if (static_cast<size_t>(received) > buffer_.size())
            continue; // cut: none of ours is that long
        const byte_span datagram = byte_span(buffer_).first(static_cast<size_t>(received));
        note_sender(served, datagram);
        const channel_answer answer = handle(datagram);
        if (!answer.bytes.empty() && send_message(fd, answer.bytes, answer.descriptor) < 0 &&
            errno != EAGAIN)
            return false;
    }
    return true;
}

void channel_server::serve(const handler &handle, int64_t now_ms) {
    if (pause_.ends(now_ms))
        watch_listener();
    std::array<epoll_event, 64> events;
    const int ready = epoll_wait(epoll_.get(), events.data(), events.size(), 0);
    for (int i = 0; i < ready; ++i) {
        const int fd = events[static_cast<size_t>(i)].data.fd;
        if (fd == listener_.fd()) {
            accept_clients(now_ms);
            continue;
        }
        const auto served = clients_.find(fd);
        if (served == clients_.end() || serve_client(served->second, handle))
            continue;
        daemons_ -= served->second.is_daemon ? 1 : 0;
        clients_.erase(served);
    }
}

} // namespace avcore
