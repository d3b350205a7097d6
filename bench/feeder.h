// The far side of the live path: it writes frames to the feeder's end of the pair and takes the
// verdicts from the AV channel, one thread for both, and answers the questions of the daemon on the
// way.
//
// After a silence without any verdict the outstanding frames are lost.
#pragma once

#include "avcore/names/name_word.h"
#include "support/frames.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <span>
#include <string>
#include <vector>

struct feeder_options {
    bool engine_present = false; // the answer to `tm_support`
    bool names_known = false;    // whether a question for an address's name is a hit
    bool page_shared = false;    // whether it says that there is nothing new
    unsigned window = 400;       // frames that are outstanding at most
    unsigned bursts = 0;         // milliseconds in which those were sent, at most; 0: any number
    int silence_ms = 200;
};

struct feed_result {
    uint64_t answered = 0;
    uint64_t lost = 0;
    uint64_t questions = 0;
    double seconds = 0;
    double longest_wait = 0; // seconds without a verdict, of those that were awaited
};

class feeder {
public:
    // Listens at LAB_SOCKET_PATH and opens the feeder's interface.
    explicit feeder(feeder_options options);
    ~feeder();
    feeder(const feeder &) = delete;
    feeder &operator=(const feeder &) = delete;

    // Repeats `frame` every 200 ms until a verdict answers it; frames sent before the capture is
    // open vanish. Returns false when ten seconds brought none.
    bool wait_for_consumer(const octets &frame);

    // Sends `count` frames, the given ones in turn, and waits for their verdicts.
    feed_result feed(std::span<const octets> frames, uint64_t count);
    // The same of frames that are made as they go. Until one is lost verdicts come in their order.
    using frame_maker = std::function<const octets &(uint64_t number)>;
    using verdict_reader = std::function<void(const av_verdict &)>;
    feed_result feed(const frame_maker &make, uint64_t count, verdict_reader read);

private:
    struct burst {
        int64_t at_ms;
        uint64_t frames;
    };

    bool has_room() const;
    void note_sent();
    void note_gone(uint64_t frames);
    bool send_frame(const octets &frame) const;
    bool wait_readable(int timeout_ms);
    void rest();
    unsigned receive();
    unsigned receive_from(int fd);
    bool handle(int fd, const uint8_t *message, size_t size);
    void accept_connection();

    feeder_options options_;
    int packet_socket_ = -1;
    int listener_ = -1;
    avcore::name_word nothing_new_;
    std::vector<int> connections_;
    uint64_t questions_ = 0;
    verdict_reader read_;
    uint64_t outstanding_ = 0;
    std::deque<burst> bursts_; // of these; none where their number doesn't matter
};
