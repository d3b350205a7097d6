#include "avcore/bus/outgoing.h"

#include "avcore/bus/socket_options.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <netinet/tcp.h>

namespace avcore {

outgoing::peer *outgoing::find(const std::string &name) {
    const auto found = std::find_if(peers_.begin(), peers_.end(),
                                    [&](const peer &each) { return each.name == name; });
    if (found == peers_.end())
        return nullptr;
    peers_.splice(peers_.begin(), peers_, found);
    return &peers_.front();
}

void outgoing::add_peer(const std::string &name, const bus_address &address, int64_t now_ms) {
    if (peer *known = find(name); known != nullptr) {
        if (known->address == address)
            return;
        known->address = address;
        hang_up(*known);
        known->tried_ms = now_ms - RETRY_MS;
        return;
    }
    if (peers_.size() >= MAX_PEERS) {
        ground_.counts.with_forgotten_peers += peers_.back().queue.size();
        peers_.pop_back();
    }
    peers_.push_front({name, address, waiting_messages(ground_.counts.outgoing), nullptr});
    peers_.front().tried_ms = now_ms - RETRY_MS;
}

bool outgoing::publish(const std::string &name, std::vector<std::byte> message, int64_t now_ms) {
    peer *to = find(name);
    if (to == nullptr)
        return false;
    if (to->queue.empty())
        to->progress_ms = now_ms;
    to->queue.add({std::move(message), now_ms}, to->leaving);
    ++ground_.counts.published;
    if (to->at == stage::up)
        flush(*to, now_ms);
    return true;
}

void outgoing::watch(peer &to, uint32_t events) {
    if (to.watched != events)
        ground_.poll.change(to.link->fd(), bus_part::outgoing, to.id, events);
    to.watched = events;
}

void outgoing::hang_up(peer &to) {
    to.link.reset();
    to.at = stage::none;
    to.left = 0;
    to.leaving = false;
    to.shaken_ms = 0;
}

void outgoing::give_up(peer &to, const std::string &why, int64_t now_ms) {
    if (to.at != stage::up || !to.queue.empty())
        ground_.complain(to.name + " at " + to.address.text() + ": " + why, now_ms);
    hang_up(to);
}

void outgoing::dial(peer &to, int64_t now_ms) {
    to.tried_ms = now_ms;
    unique_fd fd(socket(to.address.family(), SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.valid())
        return give_up(to, strerror(errno), now_ms);
    watch_for_death(fd.get());
    set_option(fd.get(), IPPROTO_TCP, TCP_NODELAY, 1);
    set_option(fd.get(), SOL_SOCKET, SO_SNDBUF, SOCKET_BUFFER_SIZE);
    if (connect(fd.get(), to.address.get(), to.address.size()) != 0 && errno != EINPROGRESS)
        return give_up(to, strerror(errno), now_ms);
    to.id = ++last_id_;
    to.link =
        ground_.tls ? ground_.tls->dial(std::move(fd), to.name) : plain_transport(std::move(fd));
    to.at = stage::connecting;
    to.watched = EPOLLOUT;
    if (!ground_.poll.add(to.link->fd(), bus_part::outgoing, to.id, to.watched))
        give_up(to, strerror(errno), now_ms);
}

void outgoing::connected(peer &to, int64_t now_ms) {
    int error = 0;
    socklen_t size = sizeof error;
    getsockopt(to.link->fd(), SOL_SOCKET, SO_ERROR, &error, &size);
    if (error != 0)
        return give_up(to, strerror(error), now_ms);
    if (ground_.tls)
        start_handshake(to, now_ms);
    else
        come_up(to, now_ms);
}

void outgoing::start_handshake(peer &to, int64_t now_ms) {
    if (ground_.step_taken ||
        !ground_.gate.start(handshake_gate::direction::out, to.address.text(), now_ms)) {
        to.at = stage::queued;
        watch(to, 0);
        return;
    }
    to.at = stage::handshake;
    go_on_with_handshake(to, true, now_ms);
}

void outgoing::go_on_with_handshake(peer &to, bool patient, int64_t now_ms) {
    if (ground_.step_taken)
        return;
    ground_.step_taken = true;
    switch (to.link->authenticate(patient)) {
    case transport::outcome::done:
        come_up(to, now_ms);
        break;
    case transport::outcome::wants_read:
        if (to.shaken_ms == 0 && to.link->awaits_word())
            to.shaken_ms = now_ms;
        watch(to, EPOLLIN);
        break;
    case transport::outcome::wants_write:
        watch(to, EPOLLOUT);
        break;
    case transport::outcome::ended:
        give_up(to, "it ended the connection during the handshake", now_ms);
        break;
    case transport::outcome::failed:
        give_up(to, to.link->why(), now_ms);
        break;
    }
}

void outgoing::come_up(peer &to, int64_t now_ms) {
    to.at = stage::up;
    to.shaken_ms = 0;
    to.progress_ms = now_ms;
    watch(to, EPOLLIN);
    flush(to, now_ms);
}

// What is sent into a connection that the other side has closed is lost, so it is looked at first.
bool outgoing::still_there(peer &to, int64_t now_ms) {
    std::byte unexpected[1];
    switch (to.link->read(unexpected).what) {
    case transport::outcome::wants_read:
    case transport::outcome::wants_write:
        return true;
    case transport::outcome::done:
        give_up(to, "it sends where only we do", now_ms);
        return false;
    case transport::outcome::ended:
        give_up(to, "it ended the connection", now_ms);
        return false;
    case transport::outcome::failed:
        give_up(to, to.link->why(), now_ms);
        return false;
    }
    return false;
}

void outgoing::flush(peer &to, int64_t now_ms) {
    if (!still_there(to, now_ms))
        return;
    while (!to.queue.empty()) {
        const std::vector<std::byte> &bytes = to.queue.first().bytes;
        const transport::transfer sent = to.link->write(std::span(bytes).subspan(to.left));
        if (sent.what == transport::outcome::failed || sent.what == transport::outcome::ended)
            return give_up(to, to.link->why(), now_ms);
        if (sent.what != transport::outcome::done) {
            to.leaving = to.left != 0 || ground_.tls;
            return watch(to, EPOLLIN | EPOLLOUT);
        }
        to.progress_ms = now_ms;
        to.left += sent.size;
        if (to.left == bytes.size()) {
            to.queue.pop();
            to.left = 0;
            to.leaving = false;
            ++ground_.counts.sent;
        }
    }
    watch(to, EPOLLIN);
}

void outgoing::serve(uint32_t id, int64_t now_ms) {
    const auto found = std::find_if(peers_.begin(), peers_.end(), [&](const peer &each) {
        return each.at != stage::none && each.id == id;
    });
    if (found == peers_.end())
        return;
    switch (found->at) {
    case stage::connecting:
        connected(*found, now_ms);
        break;
    case stage::queued:
        give_up(*found, "it ended the connection", now_ms); // nothing else is watched
        break;
    case stage::handshake:
        go_on_with_handshake(*found, true, now_ms);
        break;
    case stage::up:
        flush(*found, now_ms);
        break;
    case stage::none:
        break;
    }
}

void outgoing::tick_peer(peer &to, int64_t now_ms) {
    if (to.queue.drop_old(now_ms) && to.leaving)
        give_up(to, "a message took half a minute", now_ms); // and part of it is there
    switch (to.at) {
    case stage::none:
        if (!to.queue.empty() && now_ms - to.tried_ms >= RETRY_MS)
            dial(to, now_ms);
        break;
    case stage::up:
        if (!to.queue.empty() && now_ms - to.progress_ms >= STALL_MS)
            give_up(to, "it takes nothing", now_ms);
        break;
    case stage::connecting:
    case stage::queued:
    case stage::handshake:
        if (now_ms - to.tried_ms >= CONNECT_MS)
            give_up(to, "no connection within two seconds", now_ms);
        else if (to.at == stage::queued)
            start_handshake(to, now_ms);
        else if (to.shaken_ms != 0 && now_ms - to.shaken_ms >= WORD_MS)
            go_on_with_handshake(to, false, now_ms);
        break;
    }
}

void outgoing::tick(int64_t now_ms) {
    for (peer &each : peers_)
        tick_peer(each, now_ms);
}

int64_t outgoing::due_ms(const peer &to, int64_t now_ms) const {
    switch (to.at) {
    case stage::none:
        return to.queue.empty() ? NEVER_MS : to.tried_ms + RETRY_MS;
    case stage::up:
        return to.queue.empty() ? NEVER_MS : to.progress_ms + STALL_MS;
    case stage::queued:
        return std::min(ground_.gate.opens_ms(handshake_gate::direction::out, now_ms),
                        to.tried_ms + CONNECT_MS);
    case stage::connecting:
    case stage::handshake:
        break;
    }
    return to.shaken_ms != 0 ? std::min(to.shaken_ms + WORD_MS, to.tried_ms + CONNECT_MS)
                             : to.tried_ms + CONNECT_MS;
}

size_t outgoing::waiting() const {
    size_t count = 0;
    for (const peer &each : peers_)
        count += each.queue.size();
    return count;
}

int64_t outgoing::next_tick_ms(int64_t now_ms) const {
    int64_t next_ms = NEVER_MS;
    for (const peer &each : peers_)
        next_ms =
            std::min({next_ms, due_ms(each, now_ms), each.queue.next_drop_ms().value_or(NEVER_MS)});
    return next_ms;
}

} // namespace avcore
