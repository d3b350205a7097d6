// The process flags: words that outlive the state block's zeroing. The signal handlers write some
// of them and touch nothing else.
#pragma once

#include <csignal>
#include <cstdint>

extern volatile sig_atomic_t parent_waiting; // 1 while a daemonizing start's parent waits
extern volatile sig_atomic_t pending_signal; // the exit signal to act on, 0 = none
extern volatile sig_atomic_t initialising;   // 1 = an exit signal ends the process at once
extern volatile sig_atomic_t running;        // 1 while the event loop shall run

// Whether an exit signal waits to be acted on. Start-up then leaves out the steps that remain.
inline bool exit_requested() {
    return pending_signal != 0;
}

extern uint32_t pkt_count; // packets seen by the capture callback
