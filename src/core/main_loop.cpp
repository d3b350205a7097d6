#include "core/main_loop.h"

#include "control/cmdsock.h"
#include "core/base/flags.h"
#include "core/base/log.h"
#include "core/dns/dns_cache.h"
#include "core/signals.h"
#include "core/system/descriptors.h"
#include "platform/wdlm.h"

#include <algorithm>
#include <iterator>
#include <sys/select.h>

namespace {

constexpr time_t WAIT_SECONDS = 5;

// The descriptors of one wait; -1 leaves one out.
struct read_set {
    fd_set descriptors;
    int highest = -1;

    read_set() { FD_ZERO(&descriptors); }
    void add(int fd) {
        if (fd < 0 || fd >= FD_SETSIZE)
            return;
        FD_SET(fd, &descriptors);
        highest = std::max(highest, fd);
    }
    bool ready(int fd) const { return fd >= 0 && fd < FD_SETSIZE && FD_ISSET(fd, &descriptors); }
};

// What the loop waits for, beyond what the rooms keep themselves.
struct loop_inputs {
    capture_context *capture_ctx;
    int command_fd; // listening
};

int capture_descriptor(const loop_inputs &in) {
    return jorn_capture_descriptor(in.capture_ctx);
}

// One packet a wake-up keeps the time between two looks at the other descriptors short.
void serve_capture(const loop_inputs &in) {
    jorn_capture_dispatch(in.capture_ctx);
}

int command_descriptor(const loop_inputs &in) {
    return in.command_fd;
}

void serve_commands(const loop_inputs &in) {
    cmdsock_accept(in.command_fd);
}

int bus_descriptor(const loop_inputs &) {
    return jorn_settings.bus != nullptr ? wdlm_fd(jorn_settings.bus) : -1;
}

void serve_bus(const loop_inputs &) {
    if (wdlm_receive(jorn_settings.bus) == WDLM_ERR_DROPPED)
        JORN_ERROR_AS("jorn_main_loop", "what came isn't a message of the bus, it is dropped\n");
}

int waiting_descriptor(const loop_inputs &) {
    return cmdsock_waiting_descriptor();
}

void serve_waiting(const loop_inputs &) {
    cmdsock_serve_waiting();
}

struct loop_row {
    int (*descriptor)(const loop_inputs &); // asked before every wait; -1 is left out
    log_text says;                          // for the debug log, when it is ready
    void (*serve)(const loop_inputs &);
};

// In the order of serving.
constexpr loop_row ROWS[] = {
    {capture_descriptor, "\n\n\ncapture the packet, let's process \n", serve_capture},
    {command_descriptor, "receive the ipc message, let's process \n", serve_commands},
    {waiting_descriptor, nullptr, serve_waiting}, // their line was written when they were accepted
    {bus_descriptor, nullptr, serve_bus},
};

// The rows' descriptors of one pass, as one wait finds them.
struct pass {
    int descriptors[std::size(ROWS)];
    read_set ready;

    explicit pass(const loop_inputs &in) {
        for (size_t i = 0; i < std::size(ROWS); ++i) {
            descriptors[i] = ROWS[i].descriptor(in);
            ready.add(descriptors[i]);
        }
    }
    // What select returns.
    int wait() {
        timeval time_out = {WAIT_SECONDS, 0};
        return select(ready.highest + 1, &ready.descriptors, nullptr, nullptr, &time_out);
    }
    void serve(const loop_inputs &in) const {
        for (size_t i = 0; i < std::size(ROWS); ++i) {
            if (!ready.ready(descriptors[i]))
                continue;
            jorn_log_text(JORN_LOG_DEBUG, JORN_AS("jorn_main_loop"), 0, ROWS[i].says);
            ROWS[i].serve(in);
        }
    }
};

} // namespace

int jorn_main_loop(capture_context *capture_ctx) {
    const loop_inputs in = {capture_ctx, behind_capture(jorn_cmdsock_init())};
    while (running != 0) {
        pass current(in);
        const int ready = current.wait();
        log_handled_signals();
        if (ready == -1) {
            JORN_ERROR("select return -1, something wrong!!\n");
            jorn_signal_handle(capture_ctx);
            return -1;
        }
        if (ready == 0)
            jorn_dnscache_age();
        else
            current.serve(in);
        jorn_signal_handle(capture_ctx);
    }
    return 0;
}
