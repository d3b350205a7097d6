// The event loop: one select over the capture, the command socket, its clients that haven't said
// anything yet and the message bus, each ready descriptor served to completion, in that order,
// before the next wait. What is waited for is a row in main_loop.cpp. Where nothing comes for five
// seconds the DNS cache ages.
#pragma once

#include "packet/capture.h"

// Runs until `running` is cleared (returns 0) or the wait fails (returns -1; an interrupted wait
// counts as failed).
int jorn_main_loop(capture_context *capture_ctx);
