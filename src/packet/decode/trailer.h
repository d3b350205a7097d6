// Where a captured frame ends and the kernel module's trailer begins, and what the trailer says.
#pragma once

#include "packet/decode/cursor.h"
#include "packet/records/context.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

// Whether a capture of `captured` bytes holds a trailer: a capture of just its size is none, for
// there would be no frame before it.
constexpr bool has_trailer(uint32_t captured) {
    return captured > sizeof(av_pkt_trailer);
}

// The frame without its trailer; all of it where there is no trailer.
byte_view frame_view(const uint8_t *bytes, uint32_t captured);

// The trailer where it stands behind its frame, at any alignment: each reader copies out what it
// needs, and a text is a view of the captured bytes, bounded by its field. Valid while they are.
class trailer_view {
public:
    // Of a capture of `captured` bytes that has one.
    trailer_view(const uint8_t *bytes, uint32_t captured)
        : at_(bytes + captured - sizeof(av_pkt_trailer)) {}

    uint32_t flow_id() const { return read<uint32_t>(offsetof(av_pkt_trailer, flow_id)); }
    uint32_t filter_type() const { return read<uint32_t>(offsetof(av_pkt_trailer, filter_type)); }
    int32_t dpi_retry() const { return read<int32_t>(offsetof(av_pkt_trailer, dpi_retry)); }
    int32_t url_retry() const { return read<int32_t>(offsetof(av_pkt_trailer, url_retry)); }
    uint32_t dpi_status() const { return read<uint32_t>(offsetof(av_pkt_trailer, dpi_status)); }
    uint16_t dpi_app_id() const { return read<uint16_t>(offsetof(av_pkt_trailer, dpi_app_id)); }
    uint16_t dpi_cat_id() const { return read<uint16_t>(offsetof(av_pkt_trailer, dpi_cat_id)); }
    std::string_view dpi_app_name() const {
        return text<sizeof av_pkt_trailer::dpi_app_name>(offsetof(av_pkt_trailer, dpi_app_name));
    }
    std::string_view kernel_domain() const {
        return text<sizeof av_pkt_trailer::kernel_domain>(offsetof(av_pkt_trailer, kernel_domain));
    }

    // Copies the UTP ids, the words, the interface indexes and the interface names.
    void copy_sides(pkt_ctx &ctx) const;

private:
    template <typename T>
    T read(size_t offset) const {
        T value;
        memcpy(&value, at_ + offset, sizeof value);
        return value;
    }
    template <size_t N>
    std::string_view text(size_t offset) const {
        const auto *field = reinterpret_cast<const char *>(at_ + offset);
        return {field, strnlen(field, N)};
    }

    const uint8_t *at_;
};
