// The start of what a client says, put together from pieces that come in any order, more than once
// and overlapping.
#pragma once

#include "avcore/hello/client_hello.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace avcore {

class hello_pieces {
public:
    // No more than this of the start is kept.
    static constexpr size_t MAX_SIZE = CLIENT_HELLO_MAX;

    // Of two pieces that say of a byte something else the first one holds. False: this is the
    // second one, or it is longer than what is kept, and nothing of it was taken.
    bool put(uint64_t offset, byte_view piece);
    byte_view whole() const { return {bytes_.data(), whole_}; } // what has no gap before it
    size_t known() const { return known_count_; }

private:
    std::vector<uint8_t> bytes_;
    std::vector<bool> known_; // as long as `bytes_`
    size_t known_count_ = 0;
    size_t whole_ = 0;
};

} // namespace avcore
