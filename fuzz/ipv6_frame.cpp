// A frame on its way to the daemon: what is shown of an IPv6 packet is one of IPv4 of stand-ins,
// whose lengths hold, and no longer than what was captured. DNS answers and DHCP requests inside
// are read, too, and what could be several datagrams is cut, for the engine and for the wire.
#include "avcore/frames/ipv6_frame.h"
#include "avcore/flows/frame_builder.h"
#include "avcore/frames/wire_packets.h"
#include "avcore/settings/config.h"
#include "demand.h"
#include "support/fresh_state.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <netinet/in.h>

namespace {

using namespace avcore;

frame_builder &builder() {
    static const config settings =
        parse_config("dpi = false\n[[rule]]\nnetwork = \"2001:db8::/61\"", "f");
    static frame_builder one(settings, "");
    return one;
}

void check_shown(const ipv6_packet &packet, const fed_frame &frame, size_t captured) {
    const size_t size = frame.bytes.size() - sizeof(av_pkt_trailer);
    demand(size <= captured);
    const frame_facts facts = decode_frame(frame.bytes);
    demand(builder().stand_ins().real(facts.sender.ip_be) == packet.source);
    demand(builder().stand_ins().real(facts.receiver.ip_be) == packet.destination);
    const bool later_fragment = (packet.fragment & 0x1FFF) != 0;
    demand(ipv4_packet(std::span(frame.bytes).first(size)).empty() == later_fragment);
}

// Nothing of the payload is lost or made up.
void check_cut(std::span<const uint8_t> ipv4) {
    const std::span<const uint8_t> payload = udp_payload(ipv4);
    std::vector<uint8_t> again;
    for (const std::vector<uint8_t> &packet : cut_datagrams(ipv4, payload.size() / 3, 5)) {
        const std::span<const uint8_t> part = udp_payload(packet);
        again.insert(again.end(), part.begin(), part.end());
    }
    demand(std::equal(again.begin(), again.end(), payload.begin(), payload.end()));
}

// Whatever the gate says of a frame, which is its last bytes here.
void check_on_wire(std::span<const uint8_t> frame) {
    constexpr size_t words = 7;
    if (frame.size() < words)
        return;
    const auto said = frame.last(words);
    const wire_layout layout = {.network = said[0],
                                .transport = said[1],
                                .payload = said[2],
                                .end = size_t{said[3]} * 4,
                                .protocol =
                                    said[4] % 2 != 0 ? uint8_t{IPPROTO_TCP} : uint8_t{IPPROTO_UDP},
                                .ipv6 = said[5] % 2 != 0};
    const auto packets = wire_packets(frame, layout, said[6]);
    if (packets.size() == 1) {
        demand(packets.front().size() == frame.size());
        return;
    }
    std::vector<uint8_t> again;
    for (const std::vector<uint8_t> &packet : packets)
        again.insert(again.end(), packet.begin() + static_cast<ptrdiff_t>(layout.payload),
                     packet.end());
    const auto payload = frame.first(layout.end).subspan(layout.payload);
    demand(std::equal(again.begin(), again.end(), payload.begin(), payload.end()));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool ready = (silence_log(), true);
    (void)ready;
    if (size > MAX_FRAME_SIZE)
        return 0;
    // A copy of exactly the captured size: a read beyond it is caught.
    const auto captured = std::make_unique<uint8_t[]>(size);
    memcpy(captured.get(), data, size);
    const std::span<const uint8_t> frame(captured.get(), size);
    const auto built = builder().build({frame, 0, {}, nullptr});
    const auto packet = find_ipv6_packet(frame);
    if (packet && built)
        check_shown(*packet, built->frame, size);
    check_cut(ipv4_packet(frame));
    check_on_wire(frame);
    static const gate_copy copy = {}; // whose tags are taken off
    (void)builder().build({frame, 0, {}, &copy});
    return 0;
}
