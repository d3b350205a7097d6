// The start of a TCP connection, which a client cuts as it likes: however its pieces come, what is
// read of it is what is read of the whole, and a host is one that can have the name.
//
// The input: up to 15 lengths of pieces, ended by 0, and the stream. They come in the order of
// their lengths' bits when those are turned round; the last one holds what is left.
#include "avcore/base/host_text.h"
#include "avcore/hello/hello_reader.h"
#include "demand.h"
#include "support/frames.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

namespace {

using namespace avcore;
using outcome = hello_reader::outcome;

struct piece {
    size_t at;
    octets data;
    uint8_t turn;
};

uint8_t turned_round(uint8_t bits) {
    uint8_t result = 0;
    for (unsigned i = 0; i < 8; ++i)
        result = static_cast<uint8_t>(result | (bits >> i & 1) << (7 - i));
    return result;
}

hello_reader::sight read(const std::vector<piece> &pieces) {
    const endpoint client = {{}, 0x0200000A, 1000};
    const endpoint server = {{}, 0x070200C0, 443};
    static hello_reader reader;
    hello_reader::sight seen;
    const flow_id flow = {true, 0, 6, client, server};
    reader.forget(flow);
    for (const piece &one : pieces) {
        if (seen.what == outcome::read || seen.what == outcome::in_vain)
            break;
        seen = reader.look_at_segment(flow, client, static_cast<int32_t>(one.at), one.data, 0);
        demand(reader.flows() == (seen.what == outcome::gathering ? 1u : 0u));
    }
    return seen;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    octets stream(data, size);
    std::vector<piece> pieces;
    const size_t lengths = std::min<size_t>(stream.find(uint8_t{0}), hello_reader::MAX_PACKETS - 1);
    const octets cuts = stream.substr(0, lengths);
    stream.erase(0, lengths + 1);
    size_t at = 0;
    for (const uint8_t length : cuts) {
        if (at < stream.size())
            pieces.push_back({at, stream.substr(at, length), turned_round(length)});
        at += length;
    }
    if (at < stream.size())
        pieces.push_back({at, stream.substr(at), 0});
    std::stable_sort(pieces.begin(), pieces.end(),
                     [](const piece &a, const piece &b) { return a.turn < b.turn; });

    const hello_reader::sight whole = read({{0, stream, 0}});
    const hello_reader::sight cut = read(pieces);
    demand(cut.what == whole.what && cut.host == whole.host);
    demand(cut.host.empty() || is_host_text(cut.host.substr(0, cut.host.find(':'))));
    return 0;
}
