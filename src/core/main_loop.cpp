#include "core/main_loop.h"

#include "control/cmdsock.h"
#include "core/base/flags.h"
#include "core/base/log.h"
#include "core/dns/dns_cache.h"
#include "core/signals.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

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

// One packet a wake-up keeps the time between two looks at the other descriptors short. A capture
// interface that was deleted yields one error and stays silent ever after.
void serve_capture(capture_context *capture_ctx) {
    JORN_DEBUG_AS("jorn_main_loop", "\n\n\ncapture the packet, let's process \n");
    static bool failed;
    const int result = pcap_dispatch(capture_ctx->handle, 1, jorn_pkt_callback,
                                     reinterpret_cast<u_char *>(capture_ctx));
    if (result == PCAP_ERROR && !failed) {
        JORN_ERROR_AS("jorn_main_loop", "capture on %s failed: %s\n", capture_ctx->device,
                      pcap_geterr(capture_ctx->handle));
    }
    failed = result == PCAP_ERROR;
}

// Gives a descriptor a number above the capture's. select looks in the order of the numbers and
// stops registering with the descriptors once one is ready: under load, when the capture always is,
// those behind it cost a packet half as much.
int behind_capture(int fd, int capture_fd) {
    if (fd < 0 || fd > capture_fd)
        return fd;
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, capture_fd + 1);
    if (moved < 0)
        return fd;
    close(fd);
    return moved;
}

int descriptor_of(const capture_context &capture_ctx) {
    return capture_ctx.handle != nullptr ? pcap_fileno(capture_ctx.handle) : -1;
}

} // namespace

int jorn_main_loop(capture_context *capture_ctx) {
    const int command_fd = behind_capture(jorn_cmdsock_init(), descriptor_of(*capture_ctx));
    while (running != 0) {
        const int capture_fd = descriptor_of(*capture_ctx);
        read_set wanted;
        wanted.add(capture_fd);
        wanted.add(command_fd);
        timeval time_out = {WAIT_SECONDS, 0};
        const int ready =
            select(wanted.highest + 1, &wanted.descriptors, nullptr, nullptr, &time_out);
        log_handled_signals();
        if (ready == -1) {
            JORN_ERROR("select return -1, something wrong!!\n");
            jorn_signal_handle(capture_ctx);
            return -1;
        }
        if (ready == 0)
            jorn_dnscache_age();
        if (ready > 0 && wanted.ready(capture_fd))
            serve_capture(capture_ctx);
        if (ready > 0 && wanted.ready(command_fd)) {
            JORN_DEBUG("receive the ipc message, let's process \n");
            cmdsock_accept(command_fd);
        }
        jorn_signal_handle(capture_ctx);
    }
    return 0;
}
