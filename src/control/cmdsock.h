// The command socket: where the controller configures and inspects the daemon, one command a
// connection.
//
// The event loop opens it once and calls cmdsock_accept whenever it is readable. Nobody holds up
// the packets: a client that hasn't sent anything yet is set aside, and a reply goes out as far as
// the connection's buffer takes it, which has room for a whole one.
#pragma once

#include <cstddef>

// Connections without data that are set aside. One that has waited for a second is overdue and
// dropped at the loop's next pass; the oldest goes when there is no room for another.
inline constexpr size_t CMDSOCK_WAITING_MAX = 8;
inline constexpr int CMDSOCK_PATIENCE_MS = 1000;

// Opens the listening socket at the settings' path, over whatever an earlier run left there.
// Returns its descriptor, or -1 after an error in the log.
int jorn_cmdsock_init();

// Takes one connection: reads one message, runs its command, closes; or sets it aside while there
// is no message. Returns 0, or -1 when there was no connection or it couldn't be read.
int cmdsock_accept(int listen_fd);

// The connections that are set aside, for the loop: a descriptor that is readable as soon as one of
// them is, or -1 while there is none, asked before every wait, when what is overdue is dropped; and
// the service of those that have something to say.
int cmdsock_waiting_descriptor();
void cmdsock_serve_waiting();
