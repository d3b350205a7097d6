// The access points that this one sends to: where they are, what waits for them, and a connection
// to each that needs one.
//
// A peer has a connection from its first message on, for as long as it lasts. While messages wait
// and there is none, one is tried every second, whatever became of the last try.
#pragma once

#include "avcore/bus/address.h"
#include "avcore/bus/ground.h"
#include "avcore/bus/transport.h"

#include <list>
#include <memory>
#include <string>
#include <vector>

namespace avcore {

class outgoing {
public:
    static constexpr size_t MAX_PEERS = 64;
    static constexpr int64_t CONNECT_MS = 2'000;
    static constexpr int64_t STALL_MS = 5'000;
    static constexpr int64_t RETRY_MS = 1'000;
    // How long an acceptor's word about our certificate is awaited; some have none to give.
    static constexpr int64_t WORD_MS = 500;

    // `ground` outlives it.
    explicit outgoing(bus_ground &ground) : ground_(ground) {}

    // Says where a peer is. When there are too many, the one used longest ago is forgotten.
    void add_peer(const std::string &name, const bus_address &address, int64_t now_ms);
    // Queues a message for the wire. Returns false when nobody said where the peer is.
    bool publish(const std::string &name, std::vector<std::byte> message, int64_t now_ms);

    void serve(uint32_t id, int64_t now_ms);
    void tick(int64_t now_ms);
    int64_t next_tick_ms(int64_t now_ms) const;
    size_t waiting() const; // messages

private:
    enum class stage { none, connecting, queued, handshake, up };
    struct peer {
        std::string name;
        bus_address address;
        waiting_messages queue;
        std::unique_ptr<transport> link; // in all stages but none
        stage at = stage::none;
        uint32_t id = 0;      // of this connection
        size_t left = 0;      // bytes of the queue's first message that the kernel took
        bool leaving = false; // it, or what TLS made of it, is on its way
        int64_t tried_ms = -RETRY_MS;
        int64_t shaken_ms = 0;   // since when only the acceptor's word is missing; 0: it isn't
        int64_t progress_ms = 0; // when bytes were last taken or began to wait
        uint32_t watched = 0;
    };

    peer *find(const std::string &name); // and makes it the one used last
    void dial(peer &to, int64_t now_ms);
    void connected(peer &to, int64_t now_ms);
    void start_handshake(peer &to, int64_t now_ms);
    void go_on_with_handshake(peer &to, bool patient, int64_t now_ms);
    void come_up(peer &to, int64_t now_ms);
    bool still_there(peer &to, int64_t now_ms);
    void flush(peer &to, int64_t now_ms);
    void watch(peer &to, uint32_t events);
    void hang_up(peer &to);
    void give_up(peer &to, const std::string &why, int64_t now_ms);
    void tick_peer(peer &to, int64_t now_ms);
    int64_t due_ms(const peer &to, int64_t now_ms) const;

    bus_ground &ground_;
    std::list<peer> peers_; // the one used last at the front
    uint32_t last_id_ = 0;
};

} // namespace avcore
