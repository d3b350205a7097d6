#include "avcore/source/file_reader.h"

#include "shared/out_of_memory.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/stat.h>

namespace avcore {
namespace {

// Without waiting for a pipe's writer.
int open_file(const std::string &path) {
    return path == "-" ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                       : open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
}

void set(const unique_fd &event) {
    eventfd_write(event.get(), 1);
}

void clear(const unique_fd &event) {
    eventfd_t count = 0;
    eventfd_read(event.get(), &count);
}

} // namespace

file_reader::file_reader(const std::string &path)
    : file_(open_file(path)),
      ready_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      stopped_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    struct stat status = {};
    if (!file_.valid() || !ready_.valid() || !stopped_.valid() || fstat(file_.get(), &status) != 0)
        throw std::runtime_error("can't read the capture " + path + ": " + strerror(errno));
    if (S_ISREG(status.st_mode))
        file_size_ = status.st_size;
    thread_ = std::thread([this] {
        try {
            run();
        } catch (const std::bad_alloc &) {
            finish(result::failed, NO_MEMORY);
        }
    });
}

file_reader::~file_reader() {
    {
        const std::lock_guard lock(mutex_);
        stop_ = true;
    }
    set(stopped_);
    room_.notify_one();
    thread_.join();
}

file_reader::result file_reader::take(file_frame &frame) {
    const std::lock_guard lock(mutex_);
    if (ahead_.empty()) {
        if (ending_ == result::nothing)
            clear(ready_);
        error_ = ending_error_;
        return ending_;
    }
    frame = std::move(ahead_.front());
    ahead_.pop_front();
    ahead_bytes_ -= frame.bytes.size();
    room_.notify_one();
    return result::frame;
}

double file_reader::share_read() const {
    return file_size_ > 0 ? static_cast<double>(position_) / static_cast<double>(file_size_) : 0;
}

ssize_t file_reader::read_some(void *self, char *buffer, size_t size) {
    auto &reader = *static_cast<file_reader *>(self);
    pollfd waited[] = {{reader.file_.get(), POLLIN, 0}, {reader.stopped_.get(), POLLIN, 0}};
    for (;;) {
        if (poll(waited, std::size(waited), -1) < 0 && errno != EINTR)
            return -1;
        if (waited[1].revents != 0)
            return 0;
        const ssize_t count = read(reader.file_.get(), buffer, size);
        if (count < 0 && (errno == EAGAIN || errno == EINTR))
            continue;
        if (count > 0)
            reader.position_ += count;
        return count;
    }
}

file_reader::capture file_reader::open() {
    const cookie_io_functions_t functions = {read_some, nullptr, nullptr, nullptr};
    FILE *stream = fopencookie(this, "r", functions);
    if (stream == nullptr) {
        finish(result::failed, std::string("can't read the capture: ") + strerror(errno));
        return nullptr;
    }
    char error[PCAP_ERRBUF_SIZE] = "";
    capture handle(pcap_fopen_offline(stream, error)); // which closes the stream at its end
    if (!handle) {
        fclose(stream);
        finish(result::failed, std::string("can't read the capture: ") + error);
        return nullptr;
    }
    link_type_ = pcap_datalink(handle.get());
    return handle;
}

void file_reader::run() {
    const capture handle = open();
    if (!handle)
        return;
    pcap_pkthdr *header = nullptr;
    const uint8_t *bytes = nullptr;
    int status = 0;
    while ((status = pcap_next_ex(handle.get(), &header, &bytes)) == 1)
        push(*header, bytes);
    if (status == PCAP_ERROR_BREAK)
        finish(result::end);
    else
        finish(result::failed, std::string("the input ends early: ") + pcap_geterr(handle.get()));
}

void file_reader::push(const pcap_pkthdr &header, const uint8_t *bytes) {
    file_frame frame = {header, {bytes, bytes + header.caplen}};
    std::unique_lock lock(mutex_);
    room_.wait(lock, [this] {
        return stop_ || (ahead_.size() < MAX_AHEAD && ahead_bytes_ < MAX_AHEAD_BYTES);
    });
    if (ahead_.empty())
        set(ready_);
    ahead_bytes_ += frame.bytes.size();
    ahead_.push_back(std::move(frame));
}

void file_reader::finish(result how, std::string error) {
    const std::lock_guard lock(mutex_);
    ending_ = how;
    ending_error_ = std::move(error);
    set(ready_);
}

} // namespace avcore
