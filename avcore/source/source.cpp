#include "avcore/source/source.h"

#include "avcore/base/monotonic_clock.h"

#include <algorithm>
#include <ctime>
#include <netinet/in.h>
#include <stdexcept>

namespace avcore {
namespace {

// Longer than any frame: one that segmentation offload made too long is seen whole and counted.
constexpr int SNAP_LENGTH = 262'144;
constexpr int READ_TIMEOUT_MS = 5;
constexpr int64_t STALE_US = 2'000'000;
constexpr int64_t STALE_HELD_US = GATE_WAIT_NS / 1'000;
// While the daemon is busy, frames wait in the capture's buffer.
constexpr int LIVE_BUFFER_BYTES = 32 * 1024 * 1024;

std::runtime_error failure(const std::string &what, const std::string &why) {
    return std::runtime_error(what + ": " + why);
}

// Files hold any numbers for time stamps. These leave room for ages to be added.
int64_t time_us(const timeval &stamp) {
    constexpr int64_t latest_s = int64_t{1} << 40;
    return std::clamp<int64_t>(stamp.tv_sec, 0, latest_s) * 1'000'000 +
           std::clamp<int64_t>(stamp.tv_usec, 0, 999'999);
}

int64_t real_time_us() {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1000;
}

int64_t age_us_of(const gate_copy &head) {
    return static_cast<int64_t>(monotonic_ns() - head.time_ns) / 1000;
}

// A held packet comes whole; the daemon is shown as much of it as of a copy, and no more than can
// be carried, for without its verdict the packet is lost.
std::span<const uint8_t> shown_of(const gate_copy_seen &copy, size_t carried) {
    const bool joined_datagrams =
        copy.head.segment_size != 0 && copy.head.flow.proto == IPPROTO_UDP;
    size_t most = joined_datagrams ? GATE_JOINED_MAX : GATE_FRAME_MAX;
    if (copy.head.held != 0)
        most = std::min(most, carried);
    return copy.frame.first(std::min(copy.frame.size(), most));
}

} // namespace

frame_source frame_source::open_file(const std::string &path) {
    frame_source source;
    source.file_ = std::make_unique<file_reader>(path);
    return source;
}

frame_source frame_source::open_interface(const std::string &name) {
    char error[PCAP_ERRBUF_SIZE] = "";
    pcap_t *handle = pcap_create(name.c_str(), error);
    if (handle == nullptr)
        throw failure("can't capture on " + name, error);
    frame_source source;
    source.live_.reset(handle);
    pcap_set_snaplen(handle, SNAP_LENGTH);
    pcap_set_promisc(handle, 1);
    pcap_set_timeout(handle, READ_TIMEOUT_MS);
    pcap_set_buffer_size(handle, LIVE_BUFFER_BYTES);
    if (const int status = pcap_activate(handle); status < 0) {
        const std::string detail = pcap_geterr(handle);
        throw failure("can't capture on " + name,
                      detail.empty() ? pcap_statustostr(status) : detail);
    }
    if (pcap_setnonblock(handle, 1, error) != 0)
        throw failure("can't capture on " + name, error);
    if (source.fd() < 0)
        throw failure("can't capture on " + name, "nothing to wait for");
    return source;
}

frame_source frame_source::open_gate(gate &gate) {
    frame_source source;
    source.gate_ = &gate;
    return source;
}

int frame_source::fd() const {
    if (gate_ != nullptr)
        return gate_->fd();
    return file_ ? file_->fd() : pcap_get_selectable_fd(live_.get());
}

int frame_source::link_type() const {
    if (gate_ != nullptr)
        return DLT_EN10MB;
    return file_ ? file_->link_type() : pcap_datalink(live_.get());
}

frame_source::result frame_source::next_of_file() {
    switch (file_->take(read_)) {
    case file_reader::result::frame:
        header_ = &read_.header;
        bytes_ = read_.bytes.data();
        return result::frame;
    case file_reader::result::nothing:
        return result::nothing;
    case file_reader::result::end:
        return result::end;
    case file_reader::result::failed:
        break;
    }
    error_ = file_->error();
    return result::failed;
}

frame_source::result frame_source::next_live() {
    pcap_pkthdr *header = nullptr;
    switch (pcap_next_ex(live_.get(), &header, &bytes_)) {
    case 1:
        header_ = header;
        return result::frame;
    case 0:
        return result::nothing;
    default:
        error_ = std::string("the input ends early: ") + pcap_geterr(live_.get());
        return result::failed;
    }
}

bool frame_source::is_next_late() const {
    const std::optional<gate_copy> head = gate_ != nullptr ? gate_->next_head() : std::nullopt;
    return head && age_us_of(*head) > (head->held != 0 ? STALE_HELD_US : STALE_US);
}

// What waited while nobody read is of flows that have gone on without a verdict, or ended.
frame_source::result frame_source::next_copy(captured_frame &frame) {
    if (!gate_->take(copy_))
        return result::nothing;
    ++counts_.read;
    const int64_t age_us = age_us_of(copy_.head);
    if (age_us > STALE_US && copy_.head.held == 0) {
        ++counts_.stale;
        return result::skipped;
    }
    frame.bytes = shown_of(copy_, max_frame_size_);
    frame.time_us = real_time_us() - age_us;
    if (frame.bytes.size() > max_frame_size_) {
        ++counts_.too_long;
        return result::skipped;
    }
    frame.captured_on = gate_->interface_of(copy_.head.if_index);
    frame.copy = &copy_.head;
    if (copy_.head.held != 0)
        frame.held = copy_.frame;
    if (frame.bytes.size() < copy_.head.length)
        ++counts_.cut_short;
    return result::frame;
}

frame_source::result frame_source::next(captured_frame &frame) {
    frame = {};
    if (gate_ != nullptr)
        return next_copy(frame);
    if (const result read = file_ ? next_of_file() : next_live(); read != result::frame)
        return read;
    ++counts_.read;
    if (link_type() != DLT_EN10MB) {
        ++counts_.other_link_type;
        return result::skipped;
    }
    if (header_->caplen == 0) {
        ++counts_.empty;
        return result::skipped;
    }
    if (header_->caplen > max_frame_size_) {
        ++counts_.too_long;
        return result::skipped;
    }
    if (header_->caplen < header_->len)
        ++counts_.cut_short;
    frame.bytes = {bytes_, header_->caplen};
    frame.time_us = time_us(header_->ts);
    return result::frame;
}

source_counts frame_source::counts() const {
    source_counts counts = counts_;
    pcap_stat statistics = {};
    if (live_ && pcap_stats(live_.get(), &statistics) == 0)
        counts.dropped = uint64_t{statistics.ps_drop} + statistics.ps_ifdrop;
    return counts;
}

std::string frame_source::foreign_link_type() const {
    const int type = link_type();
    if (type == DLT_EN10MB)
        return {};
    const char *name = pcap_datalink_val_to_name(type);
    return name != nullptr ? name : std::to_string(type);
}

} // namespace avcore
