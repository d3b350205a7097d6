// From a frame with an IPv6 packet to the frame with an IPv4 packet that the daemon is shown: the
// same link header, ports and protocol. Extension headers (RFC 8200) are left out, fragments stay
// fragments, and an ICMPv6 echo becomes one of ICMP.
//
// Every length comes from the network: nothing is read beyond what was captured, nor behind the end
// of the packet where it says one, and no chain of headers is walked without end. Checksums above
// IPv4 stay what they were, for nobody looks at them.
#pragma once

#include "avcore/base/ip_address.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace avcore {

struct ipv6_packet {
    std::span<const uint8_t> link; // what precedes the packet in the frame
    bool in_pppoe = false;
    uint8_t traffic_class = 0;
    uint8_t hop_limit = 0;
    ip_address source;
    ip_address destination;
    uint8_t protocol = 0;             // behind the extension headers that were walked
    bool walked = false;              // and that were all of them
    uint16_t fragment = 0;            // as in IPv4: the bit for more fragments, and the offset
    uint16_t identifier = 0;          // of the fragment
    std::span<const uint8_t> payload; // what was captured of it
    size_t payload_size = 0;          // that the packet says it has
};

// The packet is found where the daemon's decoders would find one of IPv4: behind one 802.1Q tag at
// most, in a PPPoE session as well.
std::optional<ipv6_packet> find_ipv6_packet(std::span<const uint8_t> frame);

// Replaces the bytes of `frame`, which is never longer than the one in which the packet was found.
void write_as_ipv4(const ipv6_packet &packet, uint32_t source_be, uint32_t destination_be,
                   std::vector<uint8_t> &frame);

} // namespace avcore
