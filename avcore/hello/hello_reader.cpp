#include "avcore/hello/hello_reader.h"

#include "avcore/hello/stream_hello.h"

#include <iterator>
#include <utility>

namespace avcore {
namespace {

// The frames that an Initial packet may hold (RFC 9000, 12.4).
enum frame_type : uint64_t {
    PADDING = 0x00,
    PING = 0x01,
    ACK = 0x02,
    ACK_WITH_ECN = 0x03,
    CRYPTO = 0x06,
    CONNECTION_CLOSE = 0x1C,
};

bool skip_varints(byte_view &rest, uint64_t count) {
    for (; count > 0; --count)
        if (!take_varint(rest))
            return false;
    return true;
}

// Behind a length of its own.
std::optional<byte_view> take_bytes(byte_view &rest) {
    const std::optional<uint64_t> size = take_varint(rest);
    if (!size || *size > rest.size())
        return std::nullopt;
    const byte_view bytes = rest.first(static_cast<size_t>(*size));
    rest = rest.from(bytes.size());
    return bytes;
}

bool skip_ack(byte_view &rest, bool with_ecn) {
    if (!skip_varints(rest, 2)) // largest acknowledged, delay
        return false;
    const std::optional<uint64_t> ranges = take_varint(rest);
    return ranges && skip_varints(rest, 1 + 2 * *ranges + (with_ecn ? 3 : 0));
}

bool take_crypto(byte_view &rest, hello_pieces &pieces) {
    const std::optional<uint64_t> offset = take_varint(rest);
    const std::optional<byte_view> piece = take_bytes(rest);
    return offset && piece && pieces.put(*offset, *piece);
}

bool take_frame(byte_view &rest, hello_pieces &pieces) {
    switch (take_varint(rest).value_or(~uint64_t{0})) {
    case PADDING:
    case PING:
        return true;
    case ACK:
        return skip_ack(rest, false);
    case ACK_WITH_ECN:
        return skip_ack(rest, true);
    case CRYPTO:
        return take_crypto(rest, pieces);
    case CONNECTION_CLOSE:
        return skip_varints(rest, 2) && take_bytes(rest); // error, frame type; reason
    default:
        return false;
    }
}

hello_reader::sight seen_in(const client_hello &read, handshake in) {
    using outcome = hello_reader::outcome;
    switch (read.is) {
    case client_hello::state::whole:
        return {outcome::read, read.server_name, in};
    case client_hello::state::malformed:
        return {outcome::in_vain};
    case client_hello::state::partial:
        break;
    }
    return {outcome::gathering};
}

} // namespace

// The keys stay those of the first id, whatever ids the client sends to when the server has
// answered. A Retry alone, or another version, has it begin anew.
std::optional<byte_view> hello_reader::open(gathering &hello, const quic_packet &packet) {
    const bool same_version = hello.opened && packet.version == hello.version;
    if (same_version) {
        if (const auto frames = crypto_.open(packet, hello.keys, hello.largest))
            return frames;
        if (packet.destination == hello.first_id)
            return std::nullopt;
    }
    const std::optional<quic_keys> keys = crypto_.client_keys(packet.version, packet.destination);
    int64_t largest = -1;
    const auto frames = keys ? crypto_.open(packet, *keys, largest) : std::nullopt;
    if (!frames)
        return std::nullopt;
    hello.opened = true;
    hello.version = packet.version;
    hello.first_id = packet.destination;
    hello.keys = *keys;
    hello.largest = largest;
    hello.pieces = {};
    return frames;
}

hello_reader::sight hello_reader::take_datagram(gathering &hello, byte_view datagram) {
    sight in_vain = {outcome::in_vain};
    while (const std::optional<quic_packet> packet = take_packet(datagram)) {
        if (!packet->is_initial)
            continue;
        if (++hello.packets > MAX_PACKETS)
            return in_vain;
        std::optional<byte_view> frames = open(hello, *packet);
        if (!hello.opened)
            return {};
        while (frames && frames->size() != 0)
            if (!take_frame(*frames, hello.pieces))
                return in_vain;
    }
    if (!hello.opened)
        return {};
    return seen_in(read_client_hello(hello.pieces.whole()), handshake::quic);
}

// What the server has already, or doesn't take because it lies outside of its window, changes
// nothing here either, and isn't counted: anybody could use up the packets with that.
hello_reader::sight hello_reader::take_segment(gathering &hello, int32_t offset, byte_view data) {
    if (offset < 0) {
        data = data.from(static_cast<size_t>(-int64_t{offset}));
        offset = 0;
    }
    const auto at = static_cast<size_t>(offset);
    const size_t known = hello.pieces.known();
    if (at < hello_pieces::MAX_SIZE)
        hello.pieces.put(at, data.first(hello_pieces::MAX_SIZE - at));
    if (hello.pieces.known() == 0)
        return {};
    const bool is_new = hello.pieces.known() != known;
    if (is_new && ++hello.packets > MAX_PACKETS)
        return {outcome::in_vain};
    const byte_view stream = hello.pieces.whole();
    if (!is_new || stream.size() == 0)
        return {outcome::gathering};
    const stream_hello read = read_stream_hello(stream);
    if (read.hello.is == client_hello::state::partial && stream.size() == hello_pieces::MAX_SIZE)
        return {outcome::in_vain};
    return seen_in(read.hello, read.in);
}

template <typename take_function>
hello_reader::sight hello_reader::look(const flow_id &flow, const endpoint &sender, int64_t time_us,
                                       take_function take) {
    while (!hellos_.empty() && time_us - hellos_.front().since_us > MAX_AGE_US)
        forget(hellos_.front().flow);
    const auto known = index_.find(flow);
    if (known == index_.end()) {
        gathering fresh;
        fresh.flow = flow;
        fresh.client = sender;
        fresh.since_us = time_us;
        sight seen = take(fresh);
        if (seen.what == outcome::gathering)
            keep(std::move(fresh));
        return seen;
    }
    gathering &hello = *known->second;
    if (hello.client.ip_be != sender.ip_be || hello.client.port != sender.port)
        return {outcome::gathering};
    sight seen = take(hello);
    if (seen.what != outcome::gathering)
        forget(flow);
    return seen;
}

hello_reader::sight hello_reader::look_at_datagram(const flow_id &flow, const endpoint &sender,
                                                   std::span<const uint8_t> datagram,
                                                   int64_t time_us) {
    return look(flow, sender, time_us, [&](gathering &hello) {
        return take_datagram(hello, {datagram.data(), datagram.size()});
    });
}

hello_reader::sight hello_reader::look_at_segment(const flow_id &flow, const endpoint &sender,
                                                  int32_t offset, std::span<const uint8_t> data,
                                                  int64_t time_us) {
    return look(flow, sender, time_us, [&](gathering &hello) {
        return take_segment(hello, offset, {data.data(), data.size()});
    });
}

void hello_reader::keep(gathering &&hello) {
    if (hellos_.size() >= max_flows_)
        forget(hellos_.front().flow);
    hellos_.push_back(std::move(hello));
    index_.emplace(hellos_.back().flow, std::prev(hellos_.end()));
}

void hello_reader::forget(const flow_id &flow) {
    const auto known = index_.find(flow);
    if (known == index_.end())
        return;
    hellos_.erase(known->second);
    index_.erase(known);
}

} // namespace avcore
