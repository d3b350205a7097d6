// Where the frames come from: a pcap or pcapng file, a live capture, or the copies of a gate. None
// of them is ever waited for in here. What can't be carried is counted and goes no further.
#pragma once

#include "avcore/frames/captured_frame.h"
#include "avcore/gate/gate.h"
#include "avcore/source/file_reader.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <pcap/pcap.h>
#include <span>
#include <string>
#include <vector>

namespace avcore {

struct source_counts {
    uint64_t read = 0;
    uint64_t other_link_type = 0;
    uint64_t too_long = 0;
    uint64_t empty = 0;
    uint64_t cut_short = 0; // by the capture's snap length; carried as they are
    uint64_t dropped = 0;   // by the kernel, before they could be read
    uint64_t stale = 0;     // copies that waited for too long
};

class frame_source {
public:
    // Both throw std::runtime_error.
    static frame_source open_file(const std::string &path);
    static frame_source open_interface(const std::string &name);

    // `gate` outlives the source.
    static frame_source open_gate(gate &gate);

    // Frames longer than this are not carried.
    void set_max_frame_size(size_t size) { max_frame_size_ = size; }
    size_t max_frame_size() const { return max_frame_size_; }

    enum class result {
        frame,
        skipped, // one that can't be carried
        nothing, // now
        end,
        failed, // `error` says why
    };
    result next(captured_frame &frame);

    // Whether what comes next, of a gate, has waited for too long to be asked about.
    bool is_next_late() const;

    int fd() const; // readable when there is more than nothing
    const std::string &error() const { return error_; }
    double share_read() const { return file_ ? file_->share_read() : 0; }
    source_counts counts() const;
    // Empty for Ethernet, else what the link type is.
    std::string foreign_link_type() const;

private:
    int link_type() const;
    result next_of_file();
    result next_live();
    result next_copy(captured_frame &frame);

    struct closer {
        void operator()(pcap_t *handle) const { pcap_close(handle); }
    };
    frame_source() = default;

    std::unique_ptr<file_reader> file_; // one of these three
    std::unique_ptr<pcap_t, closer> live_;
    gate *gate_ = nullptr;
    gate_copy_seen copy_;
    file_frame read_;                     // from the file
    const pcap_pkthdr *header_ = nullptr; // of the frame read last
    const uint8_t *bytes_ = nullptr;
    size_t max_frame_size_ = 0;
    std::string error_;
    source_counts counts_;
};

} // namespace avcore
