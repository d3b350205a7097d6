#include "avcore/bus/local_server.h"

#include "avcore/bus/wire.h"
#include "core/text/text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <sys/socket.h>

namespace avcore {
namespace {

constexpr size_t DATAGRAM_MAX =
    sizeof(bus_message_head) + sizeof(bus_publication) + BUS_PAYLOAD_MAX;
constexpr size_t DATAGRAMS_A_TURN = 16;

// The record behind the head; none when the datagram is shorter, or longer and has no payload.
template <typename Record>
std::optional<Record> record_of(std::span<const std::byte> datagram, bool with_payload = false) {
    constexpr size_t size = sizeof(bus_message_head) + sizeof(Record);
    if (datagram.size() < size || (datagram.size() > size && !with_payload))
        return std::nullopt;
    Record record;
    memcpy(&record, datagram.data() + sizeof(bus_message_head), sizeof record);
    return record;
}

std::vector<std::byte> delivery_of(std::span<const std::byte> body) {
    const bus_message_head head = {bus_kind::deliver};
    std::vector<std::byte> datagram(sizeof head + body.size());
    memcpy(datagram.data(), &head, sizeof head);
    memcpy(datagram.data() + sizeof head, body.data(), body.size());
    return datagram;
}

} // namespace

local_server::local_server(bus_ground &ground, const std::string &path, taker take, teller tell)
    : ground_(ground),
      take_(std::move(take)),
      tell_(std::move(tell)),
      listener_("bus socket", path),
      unclaimed_(ground.counts.local),
      buffer_(DATAGRAM_MAX) {
    ground_.poll.add(listener_.fd(), bus_part::local_listener, 0, EPOLLIN);
}

bool local_server::subscription::wants(std::span<const std::byte> datagram) const {
    const message_names names = names_of(datagram.subspan(sizeof(bus_message_head)));
    return topic == names.topic && (sender == "*" || sender == names.sender);
}

bool local_server::client::wants(std::span<const std::byte> datagram) const {
    return std::any_of(subscriptions.begin(), subscriptions.end(),
                       [&](const subscription &each) { return each.wants(datagram); });
}

void local_server::accept(int64_t now_ms) {
    const auto take = [this] {
        unique_fd fd = listener_.accept();
        if (!fd.valid())
            return false;
        const uint32_t id = ++last_id_;
        if (ground_.poll.add(fd.get(), bus_part::local, id, EPOLLIN))
            clients_.emplace(id, client{std::move(fd), {}, waiting_messages(ground_.counts.local)});
        return true;
    };
    if (!pause_.take_some(accept_pause::FEW, now_ms, take))
        ground_.poll.change(listener_.fd(), bus_part::local_listener, 0, 0);
}

void local_server::watch(uint32_t id, const client &which) {
    ground_.poll.change(which.fd.get(), bus_part::local, id,
                        which.waiting.empty() ? EPOLLIN : EPOLLIN | EPOLLOUT);
}

// What a client leaves behind waits for the next one: it may be the same daemon, restarted.
void local_server::end(uint32_t id) {
    const auto which = clients_.find(id);
    for (waiting_message &left : which->second.waiting.take([](const auto &) { return true; }))
        unclaimed_.add(std::move(left));
    clients_.erase(which);
}

void local_server::serve(uint32_t id, int64_t now_ms) {
    const auto which = clients_.find(id);
    if (which == clients_.end())
        return;
    client &from = which->second;
    for (size_t taken = 0; taken < DATAGRAMS_A_TURN; ++taken) {
        const ssize_t received = recv(from.fd.get(), buffer_.data(), buffer_.size(), MSG_TRUNC);
        if (received < 0 && (errno == EAGAIN || errno == EINTR))
            break;
        if (received <= 0)
            return end(id);
        const auto size = static_cast<size_t>(received);
        if (size > buffer_.size() ||
            !take_datagram(id, from, std::span(buffer_).first(size), now_ms))
            ++ground_.counts.malformed_datagrams;
    }
    if (!from.waiting.empty())
        flush(id, from);
}

bool local_server::take_datagram(uint32_t id, client &from, std::span<const std::byte> datagram,
                                 int64_t now_ms) {
    bus_message_head head = {};
    if (datagram.size() < sizeof head)
        return false;
    memcpy(&head, datagram.data(), sizeof head);
    if (head.kind == bus_kind::subscribe) {
        const auto record = record_of<bus_subscription>(datagram);
        if (!record || !subscribe(from, *record))
            return false;
        for (waiting_message &claimed : unclaimed_.take(
                 [&](const waiting_message &message) { return from.wants(message.bytes); }))
            hand(id, from, std::move(claimed));
        return true;
    }
    if (head.kind == bus_kind::add_peer) {
        const auto record = record_of<bus_peer>(datagram);
        if (!record || field_text(record->name).empty())
            return false;
        take_(bus_peer_named{std::string(field_text(record->name)),
                             std::string(field_text(record->address))},
              now_ms);
        return true;
    }
    const auto record = record_of<bus_publication>(datagram, true);
    if (head.kind != bus_kind::publish || !record)
        return false;
    take_(bus_published{std::string(field_text(record->destination)),
                        std::string(field_text(record->topic)),
                        datagram.subspan(sizeof head + sizeof *record)},
          now_ms);
    return true;
}

bool local_server::subscribe(client &to, const bus_subscription &record) {
    const subscription added = {std::string(field_text(record.sender)),
                                std::string(field_text(record.topic))};
    const auto known = std::find(to.subscriptions.begin(), to.subscriptions.end(), added);
    if (known != to.subscriptions.end())
        return true;
    if (to.subscriptions.size() >= MAX_SUBSCRIPTIONS)
        return false;
    to.subscriptions.push_back(added);
    return true;
}

bool local_server::send_to(const client &to, const waiting_message &message) {
    if (send(to.fd.get(), message.bytes.data(), message.bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL) <
        0)
        return false; // one that is gone is noticed when it is read
    ++ground_.counts.delivered;
    const auto body = std::span(message.bytes).subspan(sizeof(bus_message_head));
    tell_(names_of(body).topic, body.subspan(WIRE_BODY_MIN));
    return true;
}

void local_server::hand(uint32_t id, client &to, waiting_message message) {
    if (to.waiting.empty() && send_to(to, message))
        return;
    to.waiting.add(std::move(message));
    watch(id, to);
}

void local_server::flush(uint32_t id, client &to) {
    while (!to.waiting.empty() && send_to(to, to.waiting.first()))
        to.waiting.pop();
    watch(id, to);
}

void local_server::deliver(std::span<const std::byte> body, int64_t now_ms) {
    const waiting_message message = {delivery_of(body), now_ms};
    bool wanted = false;
    for (auto &[id, each] : clients_) {
        if (!each.wants(message.bytes))
            continue;
        wanted = true;
        hand(id, each, message);
    }
    if (!wanted)
        unclaimed_.add(message);
}

void local_server::tick(int64_t now_ms) {
    if (pause_.ends(now_ms))
        ground_.poll.change(listener_.fd(), bus_part::local_listener, 0, EPOLLIN);
    unclaimed_.drop_old(now_ms);
    for (auto &[id, each] : clients_)
        each.waiting.drop_old(now_ms);
}

size_t local_server::waiting() const {
    size_t count = unclaimed_.size();
    for (const auto &[id, each] : clients_)
        count += each.waiting.size();
    return count;
}

int64_t local_server::next_tick_ms() const {
    int64_t next_ms = std::min(pause_.until_ms(), unclaimed_.next_drop_ms().value_or(NEVER_MS));
    for (const auto &[id, each] : clients_)
        next_ms = std::min(next_ms, each.waiting.next_drop_ms().value_or(NEVER_MS));
    return next_ms;
}

} // namespace avcore
