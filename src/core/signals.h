// Signals: the handlers, and what the event loop makes of the flags that they set.
//
// A handler writes flag words and nothing else: neither syslog nor stdio may be entered from one.
// Its log line is written under its own name by whoever next looks at the flag.
#pragma once

#include "packet/capture.h"

// Makes SIGTERM and SIGINT ask for the loop's end and SIGPIPE do nothing: a peer that goes away
// never ends the daemon.
void install_exit_handlers();

// Makes SIGCHLD end the wait of a daemonizing start's parent.
void install_child_handler();

// SIGTERM and SIGINT. The first one is kept until the loop acts on it; while initialising the
// process ends at once with status 0.
void jorn_exit_sig_handler(int sig);

// SIGCHLD: the child is up, or dead.
void jorn_child_notify_sig_handler(int sig);

// Writes the lines of the handlers that have run since the last call, at debug level.
void log_handled_signals();

// Acts on a pending exit signal: the loop stops and the capture is closed.
void jorn_signal_handle(capture_context *capture_ctx);

// Closes the capture. Runs a second time without effect.
void jorn_exit_clean(capture_context *capture_ctx);
