// Memory that is shared with the kernel, and its words.
#pragma once

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <stdexcept>
#include <sys/mman.h>
#include <system_error>

namespace avcore {

template <typename Record>
class mapping {
public:
    mapping(int fd, size_t size, int access, off_t offset)
        : size_(size), at_(mmap(nullptr, size, access, MAP_SHARED, fd, offset)) {
        if (at_ == MAP_FAILED)
            throw std::runtime_error("the gate's memory can't be mapped: " +
                                     std::generic_category().message(errno));
    }
    mapping(mapping &&) = delete;
    ~mapping() { munmap(at_, size_); }
    Record *get() const { return static_cast<Record *>(at_); }

private:
    size_t size_;
    void *at_;
};

template <typename Word>
Word read_word(Word &word) {
    return std::atomic_ref(word).load();
}

template <typename Word>
void write_word(Word &word, Word value) {
    std::atomic_ref(word).store(value);
}

} // namespace avcore
