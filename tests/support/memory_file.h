// A text that is read by a path, as long as the object lives.
#pragma once

#include <cstdlib>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

class memory_file {
public:
    explicit memory_file(std::string_view content = {}) {
        if (fd_ < 0 ||
            write(fd_, content.data(), content.size()) != static_cast<ssize_t>(content.size()))
            abort();
    }
    ~memory_file() { close(fd_); }
    memory_file(const memory_file &) = delete;
    memory_file &operator=(const memory_file &) = delete;

    int fd() const { return fd_; }
    const char *path() const { return path_.c_str(); }
    std::string content() const {
        std::string text(static_cast<size_t>(lseek(fd_, 0, SEEK_END)), '\0');
        text.resize(static_cast<size_t>(pread(fd_, text.data(), text.size(), 0)));
        return text;
    }

private:
    int fd_ = memfd_create("test", MFD_CLOEXEC);
    std::string path_ = "/proc/self/fd/" + std::to_string(fd_);
};
