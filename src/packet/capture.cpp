#include "packet/capture.h"

#include "core/base/flags.h"
#include "core/base/log.h"
#include "core/base/record_bytes.h"
#include "core/state/stats.h"
#include "core/system/clock.h"
#include "core/system/descriptors.h"
#include "core/text/text.h"
#include "packet/decode/decode.h"
#include "packet/process.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr char LOOP[] = "jorn_main_loop"; // its lines about the interface and its packets
constexpr int64_t TRY_AGAIN_MS = 1000;
constexpr size_t FAILURE_SIZE = PCAP_ERRBUF_SIZE + 80;

// How the interface fares.
struct interface_watch {
    enum : uint8_t { FINE, DOWN, GONE } state = FINE;
    bool complained = false; // about a try in vain
    unsigned index = 0;      // of the interface that was opened
    int64_t looked_ms = 0;
    int news_fd = -1; // while it isn't fine: readable when any interface changes
};

interface_watch watch;

// Whether the interface is up; one that isn't there is not.
bool is_up(const char *device) {
    ifreq request = {};
    copy_text(request.ifr_name, device);
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool up =
        fd >= 0 && ioctl(fd, SIOCGIFFLAGS, &request) == 0 && (request.ifr_flags & IFF_UP) != 0;
    close(fd);
    return up;
}

// Whether the name still stands for the interface that was opened, and that is up. After a renaming
// another one may be up under it.
bool is_ours_up(const char *device) {
    return if_nametoindex(device) == watch.index && is_up(device);
}

// The kernel says when an interface comes; the loop's wait is longer than that may take. Without it
// the interface is looked for once a wait.
int listen_for_news() {
    const int fd =
        behind_capture(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK;
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
        return fd;
    close(fd);
    return -1;
}

// Which interface they are of is found by looking.
void drop_news() {
    char message[4096];
    while (recv(watch.news_fd, message, sizeof message, 0) >= 0 || errno == ENOBUFS) {
    }
}

void is_not_fine(decltype(watch.state) state) {
    watch.state = state;
    watch.looked_ms = 0; // what came before the listening isn't in the news
    if (watch.news_fd < 0)
        watch.news_fd = listen_for_news();
}

void is_fine() {
    close(watch.news_fd);
    watch = {.index = watch.index};
}

// Opens the device, non-blocking. Returns false, with the words for it in `failure` and the reason
// in errbuf, when it can't be had.
bool open_device(capture_context *capture_ctx, char (&failure)[FAILURE_SIZE]) {
    capture_ctx->handle = pcap_open_live(
        capture_ctx->device, static_cast<int>(capture_ctx->snaplen),
        static_cast<int>(capture_ctx->promisc), capture_ctx->timeout_ms, capture_ctx->errbuf);
    if (capture_ctx->handle == nullptr) {
        snprintf(failure, sizeof failure, "Could not open device \"%s\": %s\n", capture_ctx->device,
                 capture_ctx->errbuf);
        return false;
    }
    if (pcap_setnonblock(capture_ctx->handle, 1, capture_ctx->errbuf) == -1) {
        snprintf(failure, sizeof failure, "Could not set device \"%s\" to non-blocking: %s\n",
                 capture_ctx->device, capture_ctx->errbuf);
        return false;
    }
    watch.index = if_nametoindex(capture_ctx->device);
    return true;
}

bool open_ethernet(capture_context *capture_ctx, char (&failure)[FAILURE_SIZE]) {
    if (!open_device(capture_ctx, failure))
        return false;
    const int link_type = pcap_datalink(capture_ctx->handle);
    if (link_type == DLT_EN10MB)
        return true;
    snprintf(failure, sizeof failure, "the datalink layer type is %d, not ethernet!!\n", link_type);
    return false;
}

// Opens the interface by its name: one that was deleted is another one when it is back. Tries in
// vain are told once.
void try_again(capture_context *capture_ctx) {
    char failure[FAILURE_SIZE] = "there is no such interface, or it is down\n";
    if (is_up(capture_ctx->device)) {
        if (open_ethernet(capture_ctx, failure)) {
            JORN_INFO_AS(LOOP, "capture on %s: the interface is back\n", capture_ctx->device);
            is_fine();
            return;
        }
        close_capture(capture_ctx);
        drop_news(); // that it was promiscuous, and is no more: each would be a reason to try again
    }
    if (!watch.complained)
        JORN_ERROR_AS(LOOP, "capture on %s, trying again: %s", capture_ctx->device, failure);
    watch.complained = true;
}

void lose(capture_context *capture_ctx, const char *reason) {
    JORN_ERROR_AS(LOOP, "capture on %s failed: %s\n", capture_ctx->device, reason);
    close_capture(capture_ctx);
    is_not_fine(interface_watch::GONE);
}

// A second look: what went down may be deleted by now, and nothing more is heard of it then.
void look_again(capture_context *capture_ctx) {
    const int64_t now = monotonic_ms();
    if (now - watch.looked_ms < TRY_AGAIN_MS)
        return;
    watch.looked_ms = now;
    if (watch.state == interface_watch::GONE) {
        try_again(capture_ctx);
    } else if (if_nametoindex(capture_ctx->device) != watch.index) {
        lose(capture_ctx, "the interface disappeared");
        try_again(capture_ctx); // it may be there again already
    } else if (is_up(capture_ctx->device)) {
        JORN_INFO_AS(LOOP, "capture on %s: the interface is back\n", capture_ctx->device);
        is_fine();
    }
}

} // namespace

int jorn_capture_open(capture_context *capture_ctx) {
    copy_text(capture_ctx->device, field_text(jorn_settings.ifname));
    capture_ctx->snaplen = 65535;
    capture_ctx->promisc = 1;
    capture_ctx->timeout_ms = -1;
    char failure[FAILURE_SIZE];
    if (open_device(capture_ctx, failure))
        return 0;
    fputs(failure, stderr);
    return CAPTURE_ERR_OPEN;
}

void close_capture(capture_context *capture_ctx) {
    if (capture_ctx->handle != nullptr)
        pcap_close(capture_ctx->handle);
    capture_ctx->handle = nullptr;
}

int jorn_capture_descriptor(capture_context *capture_ctx) {
    if (watch.state != interface_watch::FINE)
        look_again(capture_ctx);
    return capture_ctx->handle != nullptr ? pcap_fileno(capture_ctx->handle) : -1;
}

int jorn_capture_news_descriptor() {
    return watch.news_fd;
}

void jorn_capture_news() {
    drop_news();
    watch.looked_ms = 0; // the next wait is behind a look
}

void jorn_capture_dispatch(capture_context *capture_ctx) {
    const int result = pcap_dispatch(capture_ctx->handle, 1, jorn_pkt_callback,
                                     reinterpret_cast<u_char *>(capture_ctx));
    if (result == PCAP_ERROR) {
        lose(capture_ctx, pcap_geterr(capture_ctx->handle));
    } else if (result == 0 && watch.state == interface_watch::FINE &&
               !is_ours_up(capture_ctx->device)) { // readable without a packet: so it is told
        JORN_ERROR_AS(LOOP, "capture on %s: the interface is down\n", capture_ctx->device);
        is_not_fine(interface_watch::DOWN);
    }
}

int jorn_set_pkt_processor(capture_context *capture_ctx) {
    const int link_type =
        capture_ctx->handle != nullptr ? pcap_datalink(capture_ctx->handle) : DLT_NULL;
    if (link_type != DLT_EN10MB) {
        JORN_ERROR("the datalink layer type is %d, not ethernet!!\n", link_type);
        return CAPTURE_ERR_LINK_TYPE;
    }
    jorn_pkt_processor = jorn_decode_eth_pkt;
    return 0;
}

void jorn_pkt_callback(uint8_t *user, const pcap_pkthdr *pkthdr, const uint8_t *bytes) {
    pkt_ctx ctx;
    zero_record(ctx);
    ctx.wfc_priority = WFC_PRIORITY_NONE;
    ++pkt_count;
    JORN_DEBUG("\n PKT %d \n", static_cast<int>(pkt_count));
    jorn_stats_inc(STATS_RECEIVED);
    if (jorn_process_pkt(&ctx, user, pkthdr, bytes) != 0)
        JORN_ERROR("PKT %d SET failed\n", static_cast<int>(pkt_count));
}
