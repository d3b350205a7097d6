// The connections that other access points make to this one. Whoever they are, they are few, say in
// time who they are or go, and store no more than one message each.
#pragma once

#include "avcore/base/accept_pause.h"
#include "avcore/bus/address.h"
#include "avcore/bus/ground.h"
#include "avcore/bus/transport.h"
#include "avcore/bus/wire.h"

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <span>
#include <string>

namespace avcore {

class incoming {
public:
    static constexpr size_t MAX = 32;
    static constexpr int64_t AUTHENTICATION_MS = 2'000;

    // Takes the body of a message whose sender has been checked.
    using taker = std::function<void(std::span<const std::byte> body)>;

    // `ground` outlives it. Throws std::runtime_error.
    incoming(bus_ground &ground, const bus_address &address, taker take);

    void accept(int64_t now_ms);
    void serve(uint32_t id, int64_t now_ms);
    void tick(int64_t now_ms);
    int64_t next_tick_ms(int64_t now_ms) const;

private:
    enum class stage {
        fresh,     // no byte has been read
        queued,    // its handshake may start when there is a turn for it
        handshake, // its handshake goes on
        open,      // messages come
    };
    struct connection {
        std::unique_ptr<transport> link;
        wire_reader reader;
        std::string address;
        stage at = stage::fresh;
        bool known = false; // it is authenticated: by certificate, else by its first message
        int64_t heard_ms = 0;
    };
    using entry = std::map<uint32_t, connection>::iterator;

    void make_room();
    void admit(unique_fd fd, const bus_address &address, int64_t now_ms);
    void queue_handshake(entry which);
    void start_next_handshake(int64_t now_ms);
    void go_on_with_handshake(entry which, int64_t now_ms);
    void receive(entry which, int64_t now_ms);
    bool take_message(connection &from, int64_t now_ms);
    void refuse(entry which, const std::string &why, int64_t now_ms);
    void watch(entry which, uint32_t events);

    bus_ground &ground_;
    taker take_;
    unique_fd listener_;
    accept_pause pause_;
    uint32_t last_id_ = 0;
    std::map<uint32_t, connection> connections_;
    std::set<uint32_t> unread_; // bytes are there that the poller doesn't see
};

} // namespace avcore
