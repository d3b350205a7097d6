// Start-up: everything between the entry point and the event loop, in its fixed order, and the way
// out.
#pragma once

#include "packet/capture.h"

// Zeroes the state block, the capture context and the statistics, reads the options, and opens what
// the daemon needs, each step only when the one before succeeded; when one fails, what was opened
// is closed. Returns 0, or the first failing step's negative code (-3 capture, -4 link type, -7 DNS
// cache, -10 an option's argument).
int jorn_init(int argc, char *argv[], capture_context *capture_ctx);

// The daemon's whole life. Returns the process's exit status: 0, or 1 when initialisation failed.
int run_daemon(int argc, char *argv[]);
