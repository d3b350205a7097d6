// The capture: the libpcap handle on the interface where the kernel module hands over packets, and
// the callback through which each of them enters.
//
// Start-up opens it and chooses the packet processor by the link type; the event loop dispatches
// one packet a wake-up; the exit path closes it. An interface that is deleted, or goes down, may
// come back: it is looked for by its name, and the log says when it went and when it is back.
#pragma once

#include "packet/records/context.h"

#include <cstdint>
#include <pcap/pcap.h>

struct capture_context {
    char device[32];
    uint32_t snaplen; // bytes
    pcap_t *handle;
    char errbuf[PCAP_ERRBUF_SIZE];
    uint32_t promisc;
    int32_t timeout_ms;
};
static_assert(PCAP_ERRBUF_SIZE == 256);

inline constexpr int CAPTURE_ERR_OPEN = -3;
inline constexpr int CAPTURE_ERR_LINK_TYPE = -4;

// Opens the configured interface, non-blocking. Returns 0, or -3 after a message on standard error.
int jorn_capture_open(capture_context *capture_ctx);

// Closes the capture, where it is open.
void close_capture(capture_context *capture_ctx);

// Chooses the packet processor for the capture's link type. Returns 0, or -4 when it is not
// Ethernet.
int jorn_set_pkt_processor(capture_context *capture_ctx);

// libpcap's callback: runs one packet through the chain. `user` is the capture context.
void jorn_pkt_callback(uint8_t *user, const pcap_pkthdr *pkthdr, const uint8_t *bytes);

// The capture's descriptor, asked before every wait, or -1 while there is no interface. Where it is
// down or gone it is looked for behind each of the kernel's news, and else once a second at most.
int jorn_capture_descriptor(capture_context *capture_ctx);

// That of the kernel's news of interfaces, while the capture's is down or gone; else -1.
int jorn_capture_news_descriptor();
void jorn_capture_news();

// Takes at most one packet.
void jorn_capture_dispatch(capture_context *capture_ctx);
