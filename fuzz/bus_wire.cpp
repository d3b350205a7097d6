// A connection of the message bus: however the bytes are dealt out, the messages are those that the
// stream holds, none is longer than it may be, and nothing follows a bad length. The first byte
// says how large the pieces are.
#include "avcore/bus/wire.h"
#include "demand.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

using avcore::wire_reader;

uint32_t length_at(std::span<const std::byte> stream) {
    uint32_t length = 0;
    for (size_t i = 0; i < avcore::WIRE_LENGTH_SIZE; ++i)
        length = length << 8 | std::to_integer<uint32_t>(stream[i]);
    return length;
}

// The message at the head of `expected` is what was read, and is passed.
void check_message(const wire_reader &reader, std::span<const std::byte> &expected) {
    const std::span<const std::byte> body = reader.body();
    demand(body.size() >= avcore::WIRE_BODY_MIN && body.size() <= avcore::WIRE_BODY_MAX);
    demand(body.size() == length_at(expected));
    demand(memcmp(body.data(), expected.data() + avcore::WIRE_LENGTH_SIZE, body.size()) == 0);
    const avcore::message_names names = avcore::names_of(body);
    const auto payload = body.subspan(avcore::WIRE_BODY_MIN);
    const auto again = avcore::encode_message(names.sender, names.topic, payload);
    demand(again.size() == avcore::WIRE_LENGTH_SIZE + body.size());
    expected = expected.subspan(again.size());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    const size_t piece = data[0] + size_t{1};
    std::span<const std::byte> stream = std::as_bytes(std::span(data, size)).subspan(1);
    std::span<const std::byte> expected = stream;
    wire_reader reader;
    while (!stream.empty()) {
        const std::span<std::byte> room = reader.room();
        demand(!room.empty());
        const size_t taken = std::min({room.size(), stream.size(), piece});
        memcpy(room.data(), stream.data(), taken);
        stream = stream.subspan(taken);
        const wire_reader::state state = reader.took(taken);
        if (state == wire_reader::state::message)
            check_message(reader, expected);
        if (state == wire_reader::state::bad_length) {
            demand(reader.length() == length_at(expected));
            demand(reader.length() < avcore::WIRE_BODY_MIN ||
                   reader.length() > avcore::WIRE_BODY_MAX);
            return 0;
        }
    }
    demand(expected.size() < avcore::WIRE_LENGTH_SIZE ||
           expected.size() < avcore::WIRE_LENGTH_SIZE + length_at(expected));
    return 0;
}
