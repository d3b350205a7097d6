// The live path measured: frames through the veth pair into a consumer and back as verdicts. The
// consumer is the built daemon, or the bare loop: a child that does nothing but select,
// pcap_dispatch with a count of 1 and one send of 232 bytes. Both capture alike and run on the same
// CPU.
#pragma once

#include "feeder.h"
#include "platform/records.h"
#include "support/frames.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

struct live_figures {
    double cpu_ns = 0;     // the consumer's CPU time a packet, user and system
    double per_second = 0; // packets
    uint64_t lost = 0;     // frames without a verdict
    long drops = 0;        // libpcap's drop counter
    double questions = 0;  // on the AV channel, a packet
};

// What is measured with both consumers: the frames, and how the platform answers.
struct live_traffic {
    std::vector<octets> frames;
    feeder_options options;
    uint64_t count;
};

// One run each. They end the program when the consumer doesn't start.
live_figures measure_bare_loop(const live_traffic &traffic);
live_figures measure_daemon(const live_traffic &traffic, const std::string &binary);

// The medians of several runs; losses and drops are the sums.
live_figures median_figures(std::span<const live_figures> runs);

// Plain TCP frames of some dozen flows, each with this trailer.
std::vector<octets> live_frames(const av_pkt_trailer &trailer);
