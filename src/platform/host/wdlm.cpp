// The message bus on a plain Linux machine: each operation becomes a message on the bus socket,
// behind which somebody else has the network.
//
// There is one bus, with one client and a few subscriptions. Nobody need be at the other end: what
// is published then fails, and every new connection starts with the subscriptions.
#include "platform/wdlm.h"

#include "platform/host/local_connection.h"
#include "platform/host/messages/bus_messages.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <sys/socket.h>

struct wdlm_label {
    char peer[64]; // padded with NULs, which a full text lacks, as in the messages
    char topic[64];
};

namespace {

constexpr size_t SUBSCRIPTIONS_MAX = 4;
constexpr size_t RECEIVED_MIN = sizeof(bus_message_head) + sizeof(bus_delivery);

struct subscription {
    bus_subscription message;
    wdlm_callback callback;
    void *arg;
};

} // namespace

struct wdlm_bus {
    local_connection connection;
    char client[32];
    std::array<subscription, SUBSCRIPTIONS_MAX> subscriptions;
    size_t subscription_count;
};

namespace {

wdlm_bus *opened; // whose connection __wdlm_add_peer uses, for it is given no bus

// Fills a field of a message. Returns false for a text that is longer than the field.
template <size_t N>
bool fill(char (&field)[N], const char *text) {
    const size_t length = strlen(text);
    if (length > N)
        return false;
    memset(field, 0, N);
    memcpy(field, text, length);
    return true;
}

// A message as it is sent.
class outgoing {
public:
    template <typename Record>
    outgoing(bus_kind kind, const Record &record, const void *payload = nullptr,
             size_t length = 0) {
        static_assert(sizeof(bus_message_head) + sizeof record <= sizeof bytes_);
        const bus_message_head head = {kind};
        memcpy(bytes_, &head, sizeof head);
        memcpy(bytes_ + sizeof head, &record, sizeof record);
        if (length != 0)
            memcpy(bytes_ + sizeof head + sizeof record, payload, length);
        size_ = sizeof head + sizeof record + length;
    }
    std::span<const std::byte> bytes() const { return std::span(bytes_).first(size_); }

private:
    std::byte bytes_[sizeof(bus_message_head) + sizeof(bus_publication) + BUS_PAYLOAD_MAX];
    size_t size_;
};

bool send_subscription(wdlm_bus &bus, const bus_subscription &wanted) {
    return bus.connection.send(outgoing(bus_kind::subscribe, wanted).bytes()) ==
           local_connection::sent::yes;
}

// Without its subscriptions a connection is of no use: it is given up, and tried again.
bool subscribe_all(wdlm_bus &bus) {
    for (size_t i = 0; i < bus.subscription_count; ++i) {
        if (!send_subscription(bus, bus.subscriptions[i].message)) {
            if (bus.connection.fd() >= 0)
                bus.connection.end();
            return false;
        }
    }
    return true;
}

bool connected(wdlm_bus &bus) {
    switch (bus.connection.ensure(bus_socket_path)) {
    case local_connection::state::none:
        return false;
    case local_connection::state::kept:
        return true;
    case local_connection::state::fresh:
        break;
    }
    bus.connection.move_behind_capture();
    return subscribe_all(bus);
}

// A connection that is found gone is, where a try is due, replaced: whoever had the network may be
// back already, and what is lost here nobody sends again.
bool send_message(wdlm_bus &bus, const outgoing &message) {
    while (connected(bus)) {
        const auto result = bus.connection.send(message.bytes());
        if (result != local_connection::sent::ended)
            return result == local_connection::sent::yes;
    }
    return false;
}

wdlm_label *create_label(const char *peer, const char *topic) {
    auto *label = new (std::nothrow) wdlm_label();
    if (label != nullptr && fill(label->peer, peer) && fill(label->topic, topic))
        return label;
    delete label;
    return nullptr;
}

bool asks_for(const bus_subscription &wanted, const bus_delivery &message) {
    const bool any_sender = wanted.sender[0] == '*' && wanted.sender[1] == '\0';
    return memcmp(wanted.topic, message.topic, sizeof wanted.topic) == 0 &&
           (any_sender || memcmp(wanted.sender, message.sender, sizeof wanted.sender) == 0);
}

// A field's text with the NUL that it may lack.
struct ended_text {
    char text[65];
    explicit ended_text(const char (&field)[64]) {
        memcpy(text, field, sizeof field);
        text[sizeof field] = '\0';
    }
};

void deliver(const wdlm_bus &bus, std::span<const std::byte> datagram) {
    bus_delivery head;
    memcpy(&head, datagram.data() + sizeof(bus_message_head), sizeof head);
    const ended_text sender(head.sender);
    const ended_text topic(head.topic);
    const wdlm_message message = {sender.text, topic.text, datagram.data() + RECEIVED_MIN,
                                  datagram.size() - RECEIVED_MIN};
    for (size_t i = 0; i < bus.subscription_count; ++i) {
        if (asks_for(bus.subscriptions[i].message, head))
            bus.subscriptions[i].callback(bus.subscriptions[i].arg, &message);
    }
}

bool is_delivery(std::span<const std::byte> datagram) {
    bus_message_head head = {};
    memcpy(&head, datagram.data(), std::min(datagram.size(), sizeof head));
    return datagram.size() >= RECEIVED_MIN && head.kind == bus_kind::deliver &&
           datagram.size() - RECEIVED_MIN <= BUS_PAYLOAD_MAX;
}

} // namespace

int wdlm_init(int) {
    return 0;
}

void wdlm_cleanup() {}

wdlm_bus *wdlm_open(int, const char *client) {
    auto *bus = new (std::nothrow) wdlm_bus();
    if (bus == nullptr || !fill(bus->client, client)) {
        delete bus;
        return nullptr;
    }
    opened = bus;
    connected(*bus);
    return bus;
}

void wdlm_close(wdlm_bus *bus) {
    if (bus->connection.fd() >= 0)
        bus->connection.end();
    opened = nullptr;
    delete bus;
}

wdlm_label *wdlm_create_slabel(int, const char *sender, const char *topic, int) {
    return create_label(sender, topic);
}

void wdlm_destroy_slabel(wdlm_label *label) {
    delete label;
}

wdlm_label *wdlm_create_plabel(int, const char *peer, const char *topic, int) {
    return create_label(peer, topic);
}

void wdlm_destroy_plabel(wdlm_label *label) {
    delete label;
}

int wdlm_sub(wdlm_bus *bus, wdlm_label *label, wdlm_callback callback, void *arg, int) {
    if (bus->subscription_count == SUBSCRIPTIONS_MAX)
        return -1;
    subscription &added = bus->subscriptions[bus->subscription_count++];
    added = {{}, callback, arg};
    memcpy(added.message.client, bus->client, sizeof bus->client);
    memcpy(added.message.sender, label->peer, sizeof label->peer);
    memcpy(added.message.topic, label->topic, sizeof label->topic);
    // Without a connection the next one starts with it.
    if (bus->connection.fd() >= 0 && !send_subscription(*bus, added.message) &&
        bus->connection.fd() >= 0)
        bus->connection.end();
    return 0;
}

int __wdlm_add_peer(const char *, int, const char *peer, const char *address) {
    bus_peer message;
    if (opened == nullptr || !fill(message.name, peer) || !fill(message.address, address))
        return -1;
    return send_message(*opened, outgoing(bus_kind::add_peer, message)) ? 0 : -1;
}

int wdlm_pub(wdlm_bus *bus, wdlm_label *label, const void *payload, size_t length) {
    if (length > BUS_PAYLOAD_MAX)
        return -1;
    bus_publication message;
    memcpy(message.destination, label->peer, sizeof message.destination);
    memcpy(message.topic, label->topic, sizeof message.topic);
    return send_message(*bus, outgoing(bus_kind::publish, message, payload, length)) ? 0 : -1;
}

int wdlm_fd(wdlm_bus *bus) {
    return connected(*bus) ? bus->connection.fd() : -1;
}

int wdlm_receive(wdlm_bus *bus) {
    if (bus->connection.fd() < 0)
        return -1;
    // One byte more than a message may have, so that a longer one is seen.
    std::array<std::byte, RECEIVED_MIN + BUS_PAYLOAD_MAX + 1> datagram;
    const ssize_t received =
        recv(bus->connection.fd(), datagram.data(), datagram.size(), MSG_DONTWAIT);
    if (received < 0 && (errno == EAGAIN || errno == EINTR))
        return -1;
    if (received <= 0) {
        bus->connection.end();
        return -1;
    }
    const auto message = std::span<const std::byte>(datagram).first(static_cast<size_t>(received));
    if (!is_delivery(message))
        return WDLM_ERR_DROPPED;
    deliver(*bus, message);
    return 0;
}
