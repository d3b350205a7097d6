// Where a captured frame ends and the kernel module's trailer begins.
#pragma once

#include "packet/decode/cursor.h"
#include "packet/records/context.h"

#include <cstdint>

// Whether a capture of `captured` bytes holds a trailer: a capture of just its size is none, for
// there would be no frame before it.
constexpr bool has_trailer(uint32_t captured) {
    return captured > sizeof(av_pkt_trailer);
}

// The frame without its trailer; all of it where there is no trailer.
byte_view frame_view(const uint8_t *bytes, uint32_t captured);

// Copies the trailer out of a capture and its UTP ids, words, interface indexes and names into the
// context. Returns false, and changes nothing, when the capture holds none.
bool read_trailer(pkt_ctx &ctx, const uint8_t *bytes, uint32_t captured, av_pkt_trailer &trailer);
