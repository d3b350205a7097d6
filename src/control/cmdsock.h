// The command socket: where the controller configures and inspects the daemon, one command a
// connection.
//
// The event loop opens it once and calls cmdsock_accept whenever it is readable. A client can hold
// up the packets for no longer than a second at a time: one that sends nothing counts as a failed
// read, one that doesn't read its reply loses it.
#pragma once

// Opens the listening socket at the settings' path, over whatever an earlier run left there.
// Returns its descriptor, or -1 after an error in the log.
int jorn_cmdsock_init();

// Serves one connection: reads one message, runs its command, closes. Returns 0 when a message was
// read, whatever became of it, -1 when there was none.
int cmdsock_accept(int listen_fd);
