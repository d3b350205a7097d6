// The listening end of the AV channel: a UNIX socket of type SOCK_SEQPACKET and its connections.
//
// Nothing here blocks. A client that doesn't read its answers loses them, one that floods the
// channel gets its share of a turn and no more, and one that is gone is forgotten.
#pragma once

#include "avcore/base/accept_pause.h"
#include "avcore/base/local_listener.h"
#include "avcore/base/messages.h"
#include "avcore/base/monotonic_clock.h"
#include "shared/unique_fd.h"

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace avcore {

class channel_server {
public:
    // Takes one datagram.
    using handler = std::function<channel_answer(byte_span datagram)>;

    // Throws std::runtime_error.
    explicit channel_server(std::string path);

    int fd() const { return epoll_.get(); } // readable when `serve` has work
    int64_t next_tick_ms() const { return pause_.until_ms(); }
    void serve(const handler &handle, int64_t now_ms);
    // Of daemons: of those that said anything but what tools ask.
    size_t connections() const { return daemons_; }
    uint64_t connects() const { return connects_; } // that were ever made

private:
    struct client {
        unique_fd fd;
        bool is_daemon = false;
    };

    void accept_clients(int64_t now_ms);
    void watch_listener();
    bool serve_client(client &served, const handler &handle); // false: it is gone
    void note_sender(client &sender, byte_span datagram);

    unique_fd epoll_;
    local_listener listener_;
    accept_pause pause_;
    std::map<int, client> clients_;
    size_t daemons_ = 0; // of them
    uint64_t connects_ = 0;
    std::vector<std::byte> buffer_;
};

} // namespace avcore
