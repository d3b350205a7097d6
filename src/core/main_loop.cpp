#include "core/main_loop.h"

#include "control/cmdsock.h"
#include "core/base/flags.h"
#include "core/base/log.h"
#include "core/base/record_bytes.h"
#include "core/dns/dns_cache.h"
#include "core/signals.h"
#include "core/system/descriptors.h"
#include "platform/wdlm.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <sys/select.h>
#include <utility>

namespace {

constexpr time_t WAIT_SECONDS = 5;
constexpr suseconds_t AT_ONCE_US = 10;

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

int news_descriptor(const loop_inputs &) {
    return jorn_capture_news_descriptor();
}

void serve_news(const loop_inputs &) {
    jorn_capture_news();
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
    {news_descriptor, nullptr, serve_news},
};

// Calls `visit` for the rows and their places, in their order, until it returns true. Each row has
// code of its own, so that what every pass calls are plain calls, or none.
template <typename Visit, size_t... Place>
void visit_rows(Visit visit, std::index_sequence<Place...>) {
    (void)(visit(ROWS[Place], Place) || ...);
}
template <typename Visit>
void visit_rows(Visit visit) {
    visit_rows(visit, std::make_index_sequence<std::size(ROWS)>());
}

// What select is asked. It is kept from pass to pass, for the descriptors seldom change, and the C
// library's checked FD_SET is a call.
class wait_set {
public:
    wait_set() { descriptors_.fill(-1); }

    // Asks the rows for their descriptors.
    void ask(const loop_inputs &in) {
        bool changed = false;
        visit_rows([&](const loop_row &row, size_t i) {
            const int fd = row.descriptor(in);
            changed = changed || fd != descriptors_[i];
            descriptors_[i] = fd;
            return false;
        });
        if (changed)
            fill();
    }
    // What select returns. While packets queue up it is asked without a wait: for one that ends at
    // once the kernel still reads its clock twice and enters the process with each descriptor,
    // which takes as long as everything that the daemon itself does about a packet.
    int wait(fd_set &ready) {
        if (busy_) {
            timeval none = {0, 0};
            if (const int count = select_ready(ready, none); count != 0)
                return count;
        }
        timeval time_out = {WAIT_SECONDS, 0};
        const int count = select_ready(ready, time_out);
        // Linux leaves in the time-out what is left of it.
        busy_ = count > 0 && time_out.tv_usec > 1'000'000 - AT_ONCE_US;
        return count;
    }
    // Serves the rows that are ready, which are `count`.
    void serve(const loop_inputs &in, const fd_set &ready, int count) const {
        visit_rows([&](const loop_row &row, size_t i) {
            if (!fits(descriptors_[i]) || !FD_ISSET(descriptors_[i], &ready))
                return false;
            jorn_log_text(JORN_LOG_DEBUG, JORN_AS("jorn_main_loop"), 0, row.says);
            row.serve(in);
            return --count == 0;
        });
    }

private:
    int select_ready(fd_set &ready, timeval &time_out) const {
        copy_record(ready, wanted_);
        return select(highest_ + 1, &ready, nullptr, nullptr, &time_out);
    }
    static bool fits(int fd) { return fd >= 0 && fd < FD_SETSIZE; }

    [[gnu::cold]] void fill() {
        FD_ZERO(&wanted_);
        highest_ = -1;
        for (const int fd : descriptors_) {
            if (!fits(fd))
                continue;
            FD_SET(fd, &wanted_);
            highest_ = std::max(highest_, fd);
        }
    }

    std::array<int, std::size(ROWS)> descriptors_;
    int highest_ = -1;
    fd_set wanted_ = {};
    bool busy_ = false; // the last wait ended at once
};

} // namespace

int jorn_main_loop(capture_context *capture_ctx) {
    const loop_inputs in = {capture_ctx, behind_capture(jorn_cmdsock_init())};
    wait_set waited;
    while (running != 0) {
        waited.ask(in);
        fd_set ready;
        const int count = waited.wait(ready);
        log_handled_signals();
        if (count == -1) {
            JORN_ERROR("select return -1, something wrong!!\n");
            jorn_signal_handle(capture_ctx);
            return -1;
        }
        if (count == 0)
            jorn_dnscache_age();
        else
            waited.serve(in, ready, count);
        jorn_signal_handle(capture_ctx);
    }
    return 0;
}
