#include "avcore/gate/ring.h"

#include "avcore/records/gate_records.h"

#include <linux/bpf.h>
#include <unistd.h>

namespace avcore {
namespace {

constexpr uint32_t RING_HEAD = 8; // of a record: its length and flags, the kernel's own word

uint32_t head_of(const uint8_t *head) {
    void *at = const_cast<uint8_t *>(head);
    return std::atomic_ref(*static_cast<uint32_t *>(at)).load();
}

// A 32-bit kernel counts the bytes of the ring in 32 bits, and begins anew after 4 GiB.
bool is_before(uint64_t at, uint64_t end) {
    return static_cast<int32_t>(static_cast<uint32_t>(end) - static_cast<uint32_t>(at)) > 0;
}

} // namespace

ring::ring(int fd)
    : page_(static_cast<size_t>(sysconf(_SC_PAGESIZE))),
      reader_(fd, page_, PROT_READ | PROT_WRITE, 0),
      writer_(fd, page_ + 2 * static_cast<size_t>(GATE_RING_BYTES), PROT_READ,
              static_cast<off_t>(page_)) {}

ring::place ring::find() const {
    place found = {.at = read_word(*reader_.get()) + taken_};
    while (is_before(found.at, read_word(*writer_.get()))) {
        const uint8_t *head = record_at(found.at);
        const uint32_t word = head_of(head);
        if (word & BPF_RINGBUF_BUSY_BIT)
            break;
        const uint32_t length = word & ~(BPF_RINGBUF_BUSY_BIT | BPF_RINGBUF_DISCARD_BIT);
        const uint64_t whole = (uint64_t{length} + RING_HEAD + 7) / 8 * 8;
        if (!(word & BPF_RINGBUF_DISCARD_BIT)) {
            found.whole = whole;
            found.record = {head + RING_HEAD, length};
            break;
        }
        found.at += whole;
    }
    return found;
}

std::span<const uint8_t> ring::peek() const {
    return find().record;
}

std::span<const uint8_t> ring::next() {
    const place found = find();
    write_word(*reader_.get(), found.at);
    taken_ = found.whole;
    return found.record;
}

const uint8_t *ring::record_at(uint64_t at) const {
    return reinterpret_cast<const uint8_t *>(writer_.get()) + page_ + (at & (GATE_RING_BYTES - 1));
}

} // namespace avcore
