// Reads a pcap or pcapng file in a thread of its own, a little ahead of who takes the frames: the
// file may be a pipe whose writer pauses, before its first byte or in the middle of a frame, and
// verdicts and signals can't wait for it. The thread touches nothing but this object, and ends with
// it whatever it waits for.
#pragma once

#include "shared/unique_fd.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>
#include <pcap/pcap.h>
#include <string>
#include <thread>
#include <vector>

namespace avcore {

struct file_frame {
    pcap_pkthdr header = {};
    std::vector<uint8_t> bytes; // as captured
};

class file_reader {
public:
    static constexpr size_t MAX_AHEAD = 256; // frames
    static constexpr size_t MAX_AHEAD_BYTES = size_t{1} << 20;

    // Throws std::runtime_error when there is no such file. "-" is the standard input.
    explicit file_reader(const std::string &path);
    ~file_reader();
    file_reader(const file_reader &) = delete;
    file_reader &operator=(const file_reader &) = delete;

    enum class result { frame, nothing, end, failed };
    result take(file_frame &frame);
    const std::string &error() const { return error_; } // of the last `take`

    int fd() const { return ready_.get(); } // readable when `take` has more than nothing
    int link_type() const { return link_type_; }
    double share_read() const; // 0 to 1; 0 where the size isn't known

private:
    struct closer {
        void operator()(pcap_t *handle) const { pcap_close(handle); }
    };
    using capture = std::unique_ptr<pcap_t, closer>;

    static ssize_t read_some(void *self, char *buffer, size_t size);
    capture open();
    void run();
    void push(const pcap_pkthdr &header, const uint8_t *bytes);
    void finish(result how, std::string error = {});

    unique_fd file_;
    unique_fd ready_;   // an eventfd, set while there is something to take
    unique_fd stopped_; // another
    int64_t file_size_ = 0;
    std::atomic<int64_t> position_ = 0;
    std::atomic<int> link_type_ = DLT_EN10MB; // until the file's header has been read

    std::mutex mutex_; // for what follows, but `error_`
    std::condition_variable room_;
    std::deque<file_frame> ahead_;
    size_t ahead_bytes_ = 0;
    result ending_ = result::nothing;
    std::string ending_error_;
    bool stop_ = false;
    std::string error_;
    std::thread thread_;
};

} // namespace avcore
