#include "core/signals.h"

#include "core/base/flags.h"
#include "core/base/log.h"

#include <csignal>
#include <unistd.h>

namespace {

// Lines that a handler owes to the log.
volatile sig_atomic_t exit_line_due;
volatile sig_atomic_t child_line_due;

void install(int sig, void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    sigaction(sig, &action, nullptr);
}

} // namespace

void install_exit_handlers() {
    install(SIGTERM, jorn_exit_sig_handler);
    install(SIGINT, jorn_exit_sig_handler);
    install(SIGPIPE, SIG_IGN);
}

void install_child_handler() {
    install(SIGCHLD, jorn_child_notify_sig_handler);
}

void jorn_exit_sig_handler(int sig) {
    if (pending_signal != 0)
        return;
    if (initialising != 0)
        _exit(0);
    pending_signal = sig;
    exit_line_due = sig;
}

void jorn_child_notify_sig_handler(int) {
    child_line_due = 1;
    parent_waiting = 0;
}

void log_handled_signals() {
    if (child_line_due != 0) {
        child_line_due = 0;
        JORN_DEBUG_AS("jorn_child_notify_sig_handler", "child is up, notify parent to exit\n");
    }
    if (const int sig = exit_line_due; sig != 0) {
        exit_line_due = 0;
        JORN_DEBUG_AS("jorn_exit_sig_handler", "signal %d happened \n", sig);
    }
}

void jorn_signal_handle(capture_context *capture_ctx) {
    // Read before the handler's line is written, so that no signal is acted on without its line.
    // One that arrives after this stays pending for the next look.
    const int sig = pending_signal;
    log_handled_signals();
    if (sig == 0)
        return;
    if (sig == SIGINT || sig == SIGTERM) {
        if (sig == SIGINT)
            JORN_DEBUG("signal SIGINT caught\n");
        else
            JORN_DEBUG("signal SIGTERM caught\n");
        running = 0;
        jorn_exit_clean(capture_ctx);
    }
    pending_signal = 0;
}

void jorn_exit_clean(capture_context *capture_ctx) {
    JORN_DEBUG("in jorn_exit_clean, do the clean work\n");
    close_capture(capture_ctx);
}
