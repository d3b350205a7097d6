// An input that is several messages: each with what the target says before it, and its length
// (u16). The last one holds what is left.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

class pieces {
public:
    pieces(const uint8_t *data, size_t size) : left_(std::as_bytes(std::span(data, size))) {}

    bool empty() const { return left_.empty(); }
    uint8_t byte() {
        const std::span<const std::byte> taken = take(1);
        return taken.empty() ? uint8_t{0} : std::to_integer<uint8_t>(taken.front());
    }
    std::span<const std::byte> message() {
        uint16_t length = 0;
        const std::span<const std::byte> field = take(sizeof length);
        memcpy(&length, field.data(), field.size());
        return take(length);
    }

private:
    std::span<const std::byte> take(size_t size) {
        const std::span<const std::byte> taken = left_.first(std::min(size, left_.size()));
        left_ = left_.subspan(taken.size());
        return taken;
    }

    std::span<const std::byte> left_;
};
