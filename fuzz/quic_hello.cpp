// The first datagrams of one UDP flow, which strangers send: raw ones, and frames in Initial
// packets that can be opened. However they come, what is kept of the flow ends within its bounds,
// and a server's name is one that a host can have.
//
// The input is records: what the bytes are (bits below, seconds since the last one in the upper
// half), their number in two bytes, and the bytes.
#include "avcore/base/host_text.h"
#include "avcore/hello/hello_reader.h"
#include "demand.h"
#include "support/quic_packets.h"

#include <cstdlib>

namespace {

using namespace avcore;

enum record_bits : uint8_t {
    RAW = 1,            // a datagram as it is, else frames
    VERSION_2 = 2,      //
    ANOTHER_ID = 4,     // as after a Retry
    SHARES_DATAGRAM = 8 // with the next record
};
constexpr size_t RECORD_HEAD_SIZE = 3;
constexpr size_t PACKET_MAX_SIZE = 16'000; // longer ones don't fit into the length that they get

class one_flow {
public:
    void arrives(const octets &datagram, unsigned seconds, bool is_one_packet) {
        time_us_ += int64_t{seconds} * 1'000'000;
        const hello_reader::sight seen =
            hellos_.look_at_datagram(flow_, client_, datagram, time_us_);
        const bool gathering = seen.what == hello_reader::outcome::gathering;
        demand(hellos_.flows() == (gathering ? 1u : 0u));
        demand(seen.host.empty() ||
               (seen.what == hello_reader::outcome::read && is_host_text(seen.host)));
        if (!gathering_ || time_us_ - since_us_ > hello_reader::MAX_AGE_US) {
            since_us_ = time_us_;
            packets_ = 0;
        }
        gathering_ = gathering;
        packets_ += gathering && is_one_packet;
        demand(packets_ <= hello_reader::MAX_PACKETS);
    }

private:
    const endpoint client_ = {{}, 0x0200000A, 1000};
    const endpoint server_ = {{}, 0x070200C0, 443};
    const flow_id flow_ = {true, 0, 17, client_, server_};

    hello_reader hellos_;
    int64_t time_us_ = 0;
    bool gathering_ = false;
    int64_t since_us_ = 0;
    unsigned packets_ = 0; // since then, each alone in its datagram
};

octets packet_of(uint8_t bits, const octets &bytes, uint32_t number) {
    initial_words words;
    words.version = (bits & VERSION_2) != 0 ? QUIC_V2 : QUIC_V1;
    words.id = words.first_id = octets_of((bits & ANOTHER_ID) != 0 ? "another." : "its id..");
    words.number = number;
    words.frames_size = 4;
    return initial_packet(bytes, words);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    one_flow flow;
    octets datagram;
    uint32_t number = 0;
    octets rest(data, size);
    while (rest.size() >= RECORD_HEAD_SIZE) {
        const uint8_t bits = rest[0];
        const octets bytes =
            rest.substr(RECORD_HEAD_SIZE, static_cast<size_t>(rest[1] << 8 | rest[2]));
        rest.erase(0, RECORD_HEAD_SIZE + bytes.size());
        const bool is_raw = (bits & RAW) != 0;
        if (!is_raw && bytes.size() > PACKET_MAX_SIZE)
            continue;
        const bool is_one_packet = !is_raw && datagram.empty();
        datagram += is_raw ? bytes : packet_of(bits, bytes, number++);
        if ((bits & SHARES_DATAGRAM) != 0 && datagram.size() < PACKET_MAX_SIZE)
            continue;
        flow.arrives(datagram, bits >> 4, is_one_packet);
        datagram.clear();
    }
    return 0;
}
