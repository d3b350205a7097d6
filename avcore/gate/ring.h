// The ring by which copies of packets come up, as the kernel lays it out: a page that its reader
// writes, one that its writer writes, and the records, mapped twice in a row, so that each lies in
// one piece.
//
// libbpf's own reader hands records to a function and frees each when that returns; who asks for
// one frame at a time, as the sources are asked, would have to copy it.
#pragma once

#include "avcore/gate/mapping.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace avcore {

class ring {
public:
    explicit ring(int fd);

    // The next record; empty when there is none now. Frees the record of the last call.
    std::span<const uint8_t> next();
    // The same without taking it, nor freeing the last one.
    std::span<const uint8_t> peek() const;

private:
    struct place {
        uint64_t at = 0;    // where the search ended
        uint64_t whole = 0; // bytes in the ring; 0: there is no record
        std::span<const uint8_t> record = {};
    };
    place find() const;
    const uint8_t *record_at(uint64_t at) const;

    size_t page_;
    mapping<uint64_t> reader_;
    mapping<uint64_t> writer_;
    uint64_t taken_ = 0;
};

} // namespace avcore
