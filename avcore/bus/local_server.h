// The bus socket: the daemons of this machine, each with what it subscribed to. What they send is
// read here and handed on; what the network brought waits here for those that want it.
#pragma once

#include "avcore/base/accept_pause.h"
#include "avcore/base/local_listener.h"
#include "avcore/bus/ground.h"
#include "platform/host/messages/bus_messages.h"

#include <functional>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace avcore {

struct bus_peer_named {
    std::string name;
    std::string address;
};

struct bus_published {
    std::string destination;
    std::string topic;
    std::span<const std::byte> payload; // lives as long as the call
};

class local_server {
public:
    using request = std::variant<bus_peer_named, bus_published>;
    using taker = std::function<void(const request &asked, int64_t now_ms)>;
    // Gets each message that a client is given to read; its payload lives as long as the call.
    using teller = std::function<void(std::string_view topic, std::span<const std::byte> payload)>;

    // `ground` outlives it. Throws std::runtime_error.
    local_server(bus_ground &ground, const std::string &path, taker take, teller tell);

    void accept(int64_t now_ms);
    void serve(uint32_t id, int64_t now_ms);
    void tick(int64_t now_ms);
    int64_t next_tick_ms() const;
    size_t waiting() const; // messages

    // A message's body as the wire has it: to everybody who wants it, else to whoever will.
    void deliver(std::span<const std::byte> body, int64_t now_ms);

private:
    static constexpr size_t MAX_SUBSCRIPTIONS = 64; // of one client

    struct subscription {
        std::string sender; // "*": any
        std::string topic;

        bool operator==(const subscription &) const = default;
        bool wants(std::span<const std::byte> datagram) const;
    };
    struct client {
        unique_fd fd;
        std::vector<subscription> subscriptions;
        waiting_messages waiting; // while its socket is full

        bool wants(std::span<const std::byte> datagram) const;
    };

    bool take_datagram(uint32_t id, client &from, std::span<const std::byte> datagram,
                       int64_t now_ms);
    bool subscribe(client &to, const bus_subscription &record);
    void hand(uint32_t id, client &to, waiting_message message);
    void flush(uint32_t id, client &to);
    bool send_to(const client &to, const waiting_message &message);
    void end(uint32_t id);
    void watch(uint32_t id, const client &which);

    bus_ground &ground_;
    taker take_;
    teller tell_;
    local_listener listener_;
    accept_pause pause_;
    uint32_t last_id_ = 0;
    std::map<uint32_t, client> clients_;
    waiting_messages unclaimed_; // nobody wanted them when they came
    std::vector<std::byte> buffer_;
};

} // namespace avcore
