#include "avcore/quic_hello.h"

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
    const byte_view bytes = rest.first(*size);
    rest = rest.from(*size);
    return bytes;
}

bool skip_ack(byte_view &rest, bool with_ecn) {
    if (!skip_varints(rest, 2)) // largest acknowledged, delay
        return false;
    const std::optional<uint64_t> ranges = take_varint(rest);
    return ranges && skip_varints(rest, 1 + 2 * *ranges + (with_ecn ? 3 : 0));
}

bool take_crypto(byte_view &rest, crypto_pieces &pieces) {
    const std::optional<uint64_t> offset = take_varint(rest);
    const std::optional<byte_view> piece = take_bytes(rest);
    return offset && piece && pieces.put(*offset, *piece);
}

bool take_frame(byte_view &rest, crypto_pieces &pieces) {
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

} // namespace

bool crypto_pieces::put(uint64_t offset, byte_view piece) {
    if (offset > CLIENT_HELLO_MAX || piece.size() > CLIENT_HELLO_MAX - offset)
        return false;
    const size_t end = offset + piece.size();
    if (end > bytes_.size()) {
        bytes_.resize(end);
        known_.resize(end);
    }
    for (size_t i = 0; i < piece.size(); ++i) {
        const size_t at = offset + i;
        if (known_[at] && bytes_[at] != piece.u8(i))
            return false;
        bytes_[at] = piece.u8(i);
        known_[at] = true;
    }
    while (whole_ < known_.size() && known_[whole_])
        ++whole_;
    return true;
}

// The keys stay those of the first id, whatever ids the client sends to when the server has
// answered. A Retry alone, or another version, has it begin anew.
std::optional<byte_view> quic_hellos::open(gathering &hello, const quic_packet &packet) {
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

quic_hellos::sight quic_hellos::take_datagram(gathering &hello, byte_view datagram) {
    sight in_vain = {outcome::in_vain, {}};
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
    client_hello read = read_client_hello(hello.pieces.whole());
    switch (read.is) {
    case client_hello::state::whole:
        return {outcome::read, std::move(read.server_name)};
    case client_hello::state::malformed:
        return in_vain;
    case client_hello::state::partial:
        break;
    }
    return {outcome::gathering, {}};
}

quic_hellos::sight quic_hellos::look(const flow_id &flow, const endpoint &sender,
                                     std::span<const uint8_t> datagram, int64_t time_us) {
    while (!hellos_.empty() && time_us - hellos_.front().since_us > MAX_AGE_US)
        forget(hellos_.front().flow);
    const byte_view bytes(datagram.data(), datagram.size());
    const auto known = index_.find(flow);
    if (known == index_.end()) {
        gathering fresh;
        fresh.flow = flow;
        fresh.client = sender;
        fresh.since_us = time_us;
        sight seen = take_datagram(fresh, bytes);
        if (seen.what == outcome::gathering)
            keep(std::move(fresh));
        return seen;
    }
    gathering &hello = *known->second;
    if (hello.client.ip_be != sender.ip_be || hello.client.port != sender.port)
        return {outcome::gathering, {}};
    sight seen = take_datagram(hello, bytes);
    if (seen.what != outcome::gathering)
        forget(flow);
    return seen;
}

void quic_hellos::keep(gathering &&hello) {
    if (hellos_.size() >= max_flows_)
        forget(hellos_.front().flow);
    hellos_.push_back(std::move(hello));
    index_.emplace(hellos_.back().flow, std::prev(hellos_.end()));
}

void quic_hellos::forget(const flow_id &flow) {
    const auto known = index_.find(flow);
    if (known == index_.end())
        return;
    hellos_.erase(known->second);
    index_.erase(known);
}

} // namespace avcore
