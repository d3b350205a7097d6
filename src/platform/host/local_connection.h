// A connection to a local socket of type SOCK_SEQPACKET that nobody may be listening on: tried when
// it is needed, once a second at most. Nothing here blocks.
#pragma once

#include <chrono>
#include <cstddef>
#include <span>

class local_connection {
public:
    using clock = std::chrono::steady_clock;

    enum class state { none, kept, fresh };

    // Tries to connect to `path` where there is no connection and a try is due. A listener with a
    // full backlog counts as absent. Says whether there is a connection, and whether it is a new
    // one.
    state ensure(const char *path);

    enum class sent { yes, doesnt_fit, ended };

    // Sends one datagram. A connection that is found gone is closed.
    sent send(std::span<const std::byte> datagram);

    void end();

    // Gives the descriptor a number of `lowest` at least.
    void renumber(int lowest);

    int fd() const { return fd_; } // -1 while there is no connection

private:
    int fd_ = -1;
    bool tried_ = false;
    clock::time_point last_try_;
};
