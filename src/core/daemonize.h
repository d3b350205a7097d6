// The change into a background daemon, with a handshake: the parent leaves when the child has
// detached.
#pragma once

// Forks, unless process 1 already is the parent, and detaches from the session and the terminal.
// Returns 0 in the child; the parent and a failed fork never return.
int jorn_daemonlize();

// Sends `sig` to the parent process and reports the outcome in the log.
void jorn_child_notify_parent(int sig);
