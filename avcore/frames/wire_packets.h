// A frame as the kernel shows it to a gate isn't always what was on the wire: segmentation joins
// packets, and the network card completes checksums. Whoever writes such a frame back has to undo
// the one and to do the other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace avcore {

// Offsets in the frame, as the gate's program found them. Those that contradict each other or the
// frame's size describe nothing.
struct wire_layout {
    size_t network = 0;
    size_t transport = 0; // behind IPv6's extension headers
    size_t payload = 0;   // behind TCP's or UDP's header; where there is neither, `transport`
    size_t end = 0;       // before any padding
    uint8_t protocol = 0;
    bool ipv6 = false;
};

// With the frame's Ethernet header and tags. `segment_size`: of the payload in each packet where
// several were joined; else 0.
//
// One packet stays as it is, but for a checksum of TCP (RFC 9293) or UDP (RFC 768) that is partial:
// the sum over the pseudo-header alone, where Linux leaves the rest to the card. A wrong one stays
// wrong, so that nobody takes by this machine's word what was harmed on its way. A fragment's is
// never partial, and one of SCTP (a CRC32c) isn't told from a wrong one: they stay, too.
//
// Joined ones get the lengths, numbers and flags that they had, and checksums of this machine's:
// the kernel joins only what it has checked, and keeps nothing of it. Those of other protocols stay
// joined: inside are packets of a tunnel, or SCTP's chunks, which no size alone tells apart.
std::vector<std::vector<uint8_t>> wire_packets(std::span<const uint8_t> frame,
                                               const wire_layout &layout, uint16_t segment_size);

} // namespace avcore
