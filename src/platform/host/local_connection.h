// A connection to a local socket of type SOCK_SEQPACKET that nobody may be listening on: tried when
// it is needed, once a second at most. Nothing here blocks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

class local_connection {
public:
    enum class state { none, kept, fresh };

    // Tries to connect to what `path` names where there is no connection and a try is due. A
    // listener with a full backlog counts as absent. Says whether there is a connection, and
    // whether it is a new one. Each packet asks: nothing is looked up while no try is due.
    state ensure(const char *(*path)());

    enum class sent { yes, doesnt_fit, ended };

    // Sends one datagram. A connection that is found gone is closed.
    sent send(std::span<const std::byte> datagram);

    void end();

    // For a descriptor that the loop waits for.
    void move_behind_capture();

    int fd() const { return fd_; } // -1 while there is no connection

private:
    int fd_ = -1;
    bool tried_ = false;
    int64_t last_try_ms_ = 0;
};
