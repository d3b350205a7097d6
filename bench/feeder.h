// The far side of the live path: it writes frames to the feeder's end of the pair and takes the
// verdicts from the AV channel, one thread for both, and answers the questions of the daemon on the
// way.
//
// At most WINDOW frames are outstanding. After 200 ms without any verdict the outstanding ones are
// lost.
#pragma once

#include "avcore/names/name_word.h"
#include "support/frames.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

struct feeder_options {
    bool engine_present = false; // the answer to `tm_support`
    bool names_known = false;    // whether a question for an address's name is a hit
    bool page_shared = false;    // whether it says that there is nothing new
};

struct feed_result {
    uint64_t answered = 0;
    uint64_t lost = 0;
    uint64_t questions = 0;
    double seconds = 0;
};

class feeder {
public:
    static constexpr unsigned WINDOW = 400;

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

private:
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
};
