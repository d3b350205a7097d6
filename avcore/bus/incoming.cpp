#include "avcore/bus/incoming.h"

#include "avcore/bus/admission.h"
#include "avcore/bus/socket_options.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <sys/socket.h>
#include <vector>

namespace avcore {
namespace {

constexpr int BACKLOG = 64;

unique_fd try_listener(const bus_address &address) {
    unique_fd fd(socket(address.family(), SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.valid())
        return fd;
    set_option(fd.get(), SOL_SOCKET, SO_REUSEADDR, 1);
    set_option(fd.get(), SOL_SOCKET, SO_RCVBUF, SOCKET_BUFFER_SIZE);
    if (address.family() == AF_INET6)
        set_option(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, 0);
    if (bind(fd.get(), address.get(), address.size()) != 0 || listen(fd.get(), BACKLOG) != 0)
        return unique_fd();
    return fd;
}

unique_fd open_listener(const bus_address &address) {
    unique_fd fd = try_listener(address);
    // IPv6 may be switched off: all addresses then are all of IPv4.
    if (!fd.valid() && address.text() == "::" && (errno == EAFNOSUPPORT || errno == EADDRNOTAVAIL))
        fd = try_listener(bus_address::any_ipv4(address.port()));
    if (!fd.valid())
        throw std::runtime_error("bus: listening at " + address.text() + ", port " +
                                 std::to_string(address.port()) + ": " + strerror(errno));
    return fd;
}

} // namespace

incoming::incoming(bus_ground &ground, const bus_address &address, taker take)
    : ground_(ground), take_(std::move(take)), listener_(open_listener(address)) {
    ground_.poll.add(listener_.get(), bus_part::listener, 0, EPOLLIN);
}

void incoming::accept(int64_t now_ms) {
    const auto take = [&] {
        sockaddr_storage address = {};
        socklen_t size = sizeof address;
        unique_fd fd(accept4(listener_.get(), reinterpret_cast<sockaddr *>(&address), &size,
                             SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!fd.valid())
            return false;
        make_room();
        admit(std::move(fd), bus_address::of_socket(address), now_ms);
        return true;
    };
    if (!pause_.take_some(accept_pause::FEW, now_ms, take))
        ground_.poll.change(listener_.get(), bus_part::listener, 0, 0);
}

void incoming::make_room() {
    if (connections_.size() < MAX)
        return;
    std::vector<admitted> candidates;
    for (const auto &[id, one] : connections_)
        candidates.push_back({one.known, one.heard_ms, one.address});
    const auto index = static_cast<std::ptrdiff_t>(choose_victim(candidates));
    connections_.erase(std::next(connections_.begin(), index));
    ++ground_.counts.gave_way;
}

void incoming::admit(unique_fd fd, const bus_address &address, int64_t now_ms) {
    watch_for_death(fd.get());
    const uint32_t id = ++last_id_;
    connection &added = connections_[id];
    added.address = address.text();
    added.heard_ms = now_ms;
    added.link = ground_.tls ? ground_.tls->accept(std::move(fd)) : plain_transport(std::move(fd));
    added.at = ground_.tls ? stage::fresh : stage::open;
    if (!ground_.poll.add(added.link->fd(), bus_part::incoming, id, EPOLLIN))
        connections_.erase(id);
}

void incoming::watch(entry which, uint32_t events) {
    ground_.poll.change(which->second.link->fd(), bus_part::incoming, which->first, events);
}

void incoming::refuse(entry which, const std::string &why, int64_t now_ms) {
    ++ground_.counts.refused;
    ground_.complain("connection from " + which->second.address + " refused: " + why, now_ms);
    connections_.erase(which);
}

void incoming::serve(uint32_t id, int64_t now_ms) {
    const entry which = connections_.find(id);
    if (which == connections_.end())
        return;
    switch (which->second.at) {
    case stage::fresh:
        queue_handshake(which);
        break;
    case stage::queued:
        connections_.erase(which); // nothing but its end is watched
        break;
    case stage::handshake:
        go_on_with_handshake(which, now_ms);
        break;
    case stage::open:
        receive(which, now_ms);
        break;
    }
}

void incoming::queue_handshake(entry which) {
    std::byte first;
    if (recv(which->second.link->fd(), &first, sizeof first, MSG_PEEK) <= 0) {
        connections_.erase(which); // it came and went
        return;
    }
    which->second.at = stage::queued;
    watch(which, 0);
}

// In their order, but those of addresses that had none lately first: who starts many handshakes
// waits for his own.
void incoming::start_next_handshake(int64_t now_ms) {
    entry next = connections_.end();
    for (entry each = connections_.begin(); each != connections_.end(); ++each) {
        if (each->second.at == stage::queued &&
            (next == connections_.end() ||
             (ground_.gate.seen(next->second.address) && !ground_.gate.seen(each->second.address))))
            next = each;
    }
    if (next == connections_.end() || ground_.step_taken ||
        !ground_.gate.start(handshake_gate::direction::in, next->second.address, now_ms))
        return;
    next->second.at = stage::handshake;
    watch(next, EPOLLIN);
    go_on_with_handshake(next, now_ms);
}

void incoming::go_on_with_handshake(entry which, int64_t now_ms) {
    if (ground_.step_taken)
        return;
    ground_.step_taken = true;
    connection &peer = which->second;
    switch (peer.link->authenticate(true)) {
    case transport::outcome::done:
        peer.at = stage::open;
        peer.known = true;
        peer.heard_ms = now_ms;
        watch(which, EPOLLIN);
        if (peer.link->has_more())
            unread_.insert(which->first);
        break;
    case transport::outcome::wants_read:
        watch(which, EPOLLIN);
        break;
    case transport::outcome::wants_write:
        watch(which, EPOLLOUT);
        break;
    case transport::outcome::ended:
        refuse(which, "it ended before it said who it is", now_ms);
        break;
    case transport::outcome::failed:
        refuse(which, peer.link->why(), now_ms);
        break;
    }
}

void incoming::receive(entry which, int64_t now_ms) {
    connection &peer = which->second;
    for (;;) {
        const transport::transfer read = peer.link->read(peer.reader.room());
        if (read.what == transport::outcome::wants_read ||
            read.what == transport::outcome::wants_write)
            return;
        if (read.what != transport::outcome::done) {
            connections_.erase(which); // a message that was cut comes again
            return;
        }
        switch (peer.reader.took(read.size)) {
        case wire_reader::state::more:
            break;
        case wire_reader::state::bad_length:
            ++ground_.counts.bad_lengths;
            refuse(which, "a message of " + std::to_string(peer.reader.length()) + " bytes",
                   now_ms);
            return;
        case wire_reader::state::message:
            // One a turn: the others have their turns, too.
            if (!take_message(peer, now_ms))
                refuse(which,
                       "a message names the sender " +
                           std::string(names_of(peer.reader.body()).sender) + ", the certificate " +
                           peer.link->peer_name(),
                       now_ms);
            else if (peer.link->has_more())
                unread_.insert(which->first);
            return;
        }
    }
}

bool incoming::take_message(connection &from, int64_t now_ms) {
    if (ground_.tls && names_of(from.reader.body()).sender != from.link->peer_name())
        return false;
    from.known = true;
    from.heard_ms = now_ms;
    ++ground_.counts.received;
    take_(from.reader.body());
    return true;
}

void incoming::tick(int64_t now_ms) {
    if (pause_.ends(now_ms))
        ground_.poll.change(listener_.get(), bus_part::listener, 0, EPOLLIN);
    for (const uint32_t id : std::exchange(unread_, {})) {
        if (const entry which = connections_.find(id); which != connections_.end())
            receive(which, now_ms);
    }
    for (entry each = connections_.begin(); each != connections_.end();) {
        const entry which = each++; // it may go
        if (!which->second.known && now_ms - which->second.heard_ms >= AUTHENTICATION_MS) {
            ++ground_.counts.unauthenticated;
            connections_.erase(which);
        }
    }
    start_next_handshake(now_ms);
}

int64_t incoming::next_tick_ms(int64_t now_ms) const {
    if (!unread_.empty())
        return now_ms;
    int64_t next_ms = pause_.until_ms();
    for (const auto &[id, one] : connections_) {
        if (!one.known)
            next_ms = std::min(next_ms, one.heard_ms + AUTHENTICATION_MS);
        if (one.at == stage::queued)
            next_ms =
                std::min(next_ms, ground_.gate.opens_ms(handshake_gate::direction::in, now_ms));
    }
    return next_ms;
}

} // namespace avcore
