#include "avwatch/present/watcher.h"

#include "avcore/base/monotonic_clock.h"
#include "avwatch/base/failure.h"

#include <utility>
#include <variant>

namespace avwatch {
namespace {

using avcore::NEVER_MS;

constexpr int64_t TICK_MS = 1'000;
constexpr int64_t CONNECT_EVERY_MS = 2'000;
constexpr int64_t ASK_EVERY_MS = 5'000;
constexpr int64_t SILENT_MS = 3 * ASK_EVERY_MS; // who doesn't answer tells nothing

} // namespace

struct watcher::taker {
    watcher &to;
    std::optional<uint32_t> id;
    int64_t now_ms;

    void operator()(const flow_record &flow) const { to.fed_.take(flow, now_ms); }
    void operator()(const count_record &count) const { to.fed_.take(count, now_ms); }
    void operator()(const sum_record &sum) const { to.fed_.take(sum); }
    void operator()(const event_record &event) const { to.fed_.take(event); }
    void operator()(const gate_state &gate) const { to.fed_.take(gate); }
    void operator()(const listing_end & /*end*/) const { to.fed_.listed(); }
    void operator()(const lost_events &lost) const { to.fed_.lost(lost); }
    void operator()(const client_record &client) const {
        if (to.clients_.size() < CLIENTS_MAX)
            to.clients_.push_back(client);
    }
    void operator()(const answer_end & /*end*/) const {
        if (id == to.clients_asked_)
            to.fed_.take_clients(std::exchange(to.clients_, {}));
    }
    void operator()(const answer_error &error) const {
        if (id == to.follow_asked_ || !id)
            throw no_watch("avcore at " + to.watch_socket_ + " refuses: " + error.text);
    }
    void operator()(const auto & /*other*/) const {}
};

// Who the clients are is asked first, so that flows come to know their owners.
void watcher::connect(int64_t now_ms) {
    connect_due_ms_ = now_ms + CONNECT_EVERY_MS;
    avcore_.emplace(watch_socket_);
    heard_ms_ = now_ms;
    ask(now_ms);
    follow_asked_ =
        avcore_->follow({.flows = true, .events = true, .every_ms = WATCH_EVERY_MS, .filter = {}});
    connect_due_ms_ = NEVER_MS;
}

void watcher::ask(int64_t now_ms) {
    ask_due_ms_ = now_ms + ASK_EVERY_MS;
    clients_.clear();
    clients_asked_ = avcore_->ask(question::clients);
    avcore_->ask(question::gate);
}

void watcher::listen(int64_t now_ms) {
    try {
        has_more_ = avcore_->take_some(
            [this](const greeting_record &greeting) {
                fed_.connected(greeting);
                trouble_.clear();
            },
            [&](const message &told) {
                heard_ms_ = now_ms;
                std::visit(taker{*this, told.id, now_ms}, told.what);
            });
    } catch (const no_watch &gone) {
        disconnect(gone.what(), now_ms);
    }
}

void watcher::serve(int64_t now_ms) {
    if (now_ms >= tick_due_ms_) {
        fed_.tick(now_ms);
        tick_due_ms_ = now_ms + TICK_MS;
    }
    try {
        if (now_ms >= connect_due_ms_)
            connect(now_ms);
        if (avcore_ && now_ms - heard_ms_ >= SILENT_MS)
            throw no_watch("avcore at " + watch_socket_ + " says nothing");
        if (avcore_ && now_ms >= ask_due_ms_)
            ask(now_ms);
    } catch (const std::runtime_error &error) {
        disconnect(error.what(), now_ms);
    }
}

void watcher::disconnect(const std::string &why, int64_t now_ms) {
    trouble_ = why;
    avcore_.reset();
    has_more_ = false;
    fed_.disconnected();
    connect_due_ms_ = now_ms + CONNECT_EVERY_MS;
    ask_due_ms_ = NEVER_MS;
}

} // namespace avwatch
