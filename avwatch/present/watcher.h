// From the watch socket to the present: one connection, made again whenever it has ended, that
// follows all flows and events and asks now and then who the clients are, and how the gate is.
//
// A loop waits for descriptor() and due_ms() and calls listen() and serve(), as for the recorder.
#pragma once

#include "avwatch/client/watch_client.h"
#include "avwatch/present/present.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace avwatch {

inline constexpr uint32_t WATCH_EVERY_MS = 1'000;

class watcher {
public:
    watcher(std::string watch_socket, present &fed)
        : watch_socket_(std::move(watch_socket)), fed_(fed) {}

    // Throws no_watch and refused, for who wants to know at the start; serve() tries by itself.
    void connect(int64_t now_ms);

    int descriptor() const { return avcore_ ? avcore_->descriptor() : -1; }
    bool has_more() const { return has_more_; } // was read already
    void listen(int64_t now_ms);                // what has come, some of it at a time

    int64_t due_ms() const { return std::min({tick_due_ms_, connect_due_ms_, ask_due_ms_}); }
    void serve(int64_t now_ms); // what is due; the present's tick, too

    const std::string &trouble() const { return trouble_; } // why nobody tells; empty: avcore does

private:
    struct taker; // a message by its kind

    void disconnect(const std::string &why, int64_t now_ms);
    void ask(int64_t now_ms);

    const std::string watch_socket_;
    present &fed_;
    std::optional<watch_client> avcore_;
    std::string trouble_;
    bool has_more_ = false;
    uint32_t follow_asked_ = 0;
    uint32_t clients_asked_ = 0;
    std::vector<client_record> clients_; // of an answer that goes on
    int64_t heard_ms_ = 0;
    int64_t tick_due_ms_ = 0;
    int64_t connect_due_ms_ = 0;
    int64_t ask_due_ms_ = 0;
};

} // namespace avwatch
