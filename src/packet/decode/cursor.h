// A bounded view of received bytes. Every decoder reads through one; there is no other way to the
// bytes, so nothing is read past what was captured.
//
// A read that doesn't fit returns nothing, or an empty view, and says so; it never reads in part.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>

class byte_view {
public:
    constexpr byte_view() = default;
    constexpr byte_view(const uint8_t *bytes, size_t size) : bytes_(bytes, size) {}

    size_t size() const { return bytes_.size(); }
    bool holds(size_t size) const { return size <= bytes_.size(); }

    // Network-order integers at an offset. The caller has asked `holds` for the header that they
    // belong to; beyond the view they read as 0.
    uint8_t u8(size_t offset) const { return offset < size() ? bytes_[offset] : 0; }
    uint16_t u16(size_t offset) const {
        return static_cast<uint16_t>(u8(offset) << 8 | u8(offset + 1));
    }

    // Copies `size` bytes out as they stand. Returns false and copies nothing when they don't fit.
    bool copy(size_t offset, void *to, size_t size) const {
        if (offset > bytes_.size() || size > bytes_.size() - offset)
            return false;
        memcpy(to, bytes_.data() + offset, size);
        return true;
    }

    // What lies behind the first `offset` bytes; empty when there is nothing.
    byte_view from(size_t offset) const {
        return offset < size() ? byte_view(bytes_.data() + offset, size() - offset) : byte_view();
    }

    // At most the first `size` bytes.
    byte_view first(size_t size) const {
        return {bytes_.data(), size < bytes_.size() ? size : bytes_.size()};
    }

    std::string_view text() const {
        return {reinterpret_cast<const char *>(bytes_.data()), bytes_.size()};
    }

private:
    std::span<const uint8_t> bytes_;
};
