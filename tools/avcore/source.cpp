#include "avcore/source.h"

#include <cstdio>
#include <stdexcept>
#include <sys/stat.h>

namespace avcore {
namespace {

// Longer than any frame: one that segmentation offload made too long is seen whole and counted.
constexpr int SNAP_LENGTH = 262'144;
constexpr int READ_TIMEOUT_MS = 5;
// While the daemon is busy, frames wait in the capture's buffer.
constexpr int LIVE_BUFFER_BYTES = 32 * 1024 * 1024;

std::runtime_error failure(const std::string &what, const std::string &why) {
    return std::runtime_error(what + ": " + why);
}

} // namespace

frame_source frame_source::open_file(const std::string &path) {
    char error[PCAP_ERRBUF_SIZE] = "";
    pcap_t *handle = pcap_open_offline(path.c_str(), error);
    if (handle == nullptr)
        throw failure("can't read the capture", error);
    frame_source source(handle);
    struct stat status = {};
    if (FILE *file = pcap_file(handle); file != nullptr && fstat(fileno(file), &status) == 0)
        source.file_size_ = status.st_size;
    return source;
}

frame_source frame_source::open_interface(const std::string &name) {
    char error[PCAP_ERRBUF_SIZE] = "";
    pcap_t *handle = pcap_create(name.c_str(), error);
    if (handle == nullptr)
        throw failure("can't capture on " + name, error);
    frame_source source(handle);
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
    source.fd_ = pcap_get_selectable_fd(handle);
    if (source.fd_ < 0)
        throw failure("can't capture on " + name, "nothing to wait for");
    return source;
}

frame_source::result frame_source::next(captured_frame &frame) {
    pcap_pkthdr *header = nullptr;
    const uint8_t *bytes = nullptr;
    switch (pcap_next_ex(handle_.get(), &header, &bytes)) {
    case 1:
        break;
    case 0:
        return result::nothing;
    case PCAP_ERROR_BREAK:
        return result::end;
    default:
        error_ = pcap_geterr(handle_.get());
        return result::failed;
    }
    ++counts_.read;
    if (pcap_datalink(handle_.get()) != DLT_EN10MB) {
        ++counts_.other_link_type;
        return result::skipped;
    }
    if (header->caplen == 0) {
        ++counts_.empty;
        return result::skipped;
    }
    if (header->len > max_frame_size_ || header->caplen > max_frame_size_) {
        ++counts_.too_long;
        return result::skipped;
    }
    if (header->caplen < header->len)
        ++counts_.cut_short;
    frame.bytes = {bytes, header->caplen};
    frame.time_us = int64_t{header->ts.tv_sec} * 1'000'000 + header->ts.tv_usec;
    return result::frame;
}

double frame_source::share_read() const {
    FILE *file = pcap_file(handle_.get());
    if (file == nullptr || file_size_ <= 0)
        return 0;
    return static_cast<double>(ftello(file)) / static_cast<double>(file_size_);
}

source_counts frame_source::counts() const {
    source_counts counts = counts_;
    pcap_stat statistics = {};
    if (live() && pcap_stats(handle_.get(), &statistics) == 0)
        counts.dropped = uint64_t{statistics.ps_drop} + statistics.ps_ifdrop;
    return counts;
}

std::string frame_source::foreign_link_type() const {
    const int type = pcap_datalink(handle_.get());
    if (type == DLT_EN10MB)
        return {};
    const char *name = pcap_datalink_val_to_name(type);
    return name != nullptr ? name : std::to_string(type);
}

} // namespace avcore
