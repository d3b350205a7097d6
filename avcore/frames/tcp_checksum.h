// Whether a host would take a TCP segment, by its checksum and its IPv4 header's.
#pragma once

#include <cstdint>
#include <span>

namespace avcore {

// Of a frame as it came, whose packet is found as the daemon's decoders would find it, or one of
// IPv6 in its place. True: it holds a segment whose checksum is neither right nor the sum over the
// pseudo-header alone, which Linux leaves for the network card to finish, or whose IPv4 header's
// isn't right, which no card finishes. Of the segment false as well where that can't be told, in
// fragments and where it was cut.
bool has_damaged_segment(std::span<const uint8_t> frame);

} // namespace avcore
