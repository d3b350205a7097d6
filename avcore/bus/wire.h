// A message as it stands on the wire between access points:
//
//    0 length, network order, of what follows    4 sender    68 topic    132 payload
//
// Its body, from the sender on, is what the daemon gets behind the kind of its datagram.
#pragma once

#include "platform/host/messages/bus_messages.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace avcore {

inline constexpr size_t WIRE_LENGTH_SIZE = 4;
inline constexpr size_t WIRE_BODY_MIN = sizeof(bus_delivery);
inline constexpr size_t WIRE_BODY_MAX = WIRE_BODY_MIN + BUS_PAYLOAD_MAX;
static_assert(WIRE_BODY_MIN == 128 && WIRE_BODY_MAX == 17'028);

// The payload is at most BUS_PAYLOAD_MAX bytes; names are cut at 64.
std::vector<std::byte> encode_message(std::string_view sender, std::string_view topic,
                                      std::span<const std::byte> payload);

// Of a body of at least WIRE_BODY_MIN bytes, as long as the bytes last.
struct message_names {
    std::string_view sender;
    std::string_view topic;
};
message_names names_of(std::span<const std::byte> body);

// Takes a connection apart into messages, however the bytes are dealt out. A length is judged
// before a byte behind it is stored, and what is stored is never more than one message.
class wire_reader {
public:
    enum class state { more, message, bad_length };

    // Where the next bytes belong: up to the end of the length, then up to the end of the message.
    // Never empty. Not to be asked after a bad length; after a message it starts the next one.
    std::span<std::byte> room();
    // So many bytes were put there.
    state took(size_t size);

    // Of the message just completed, until `room` is asked for.
    std::span<const std::byte> body() const { return body_; }
    // What the last whole length field said.
    uint32_t length() const { return length_; }

private:
    std::array<std::byte, WIRE_LENGTH_SIZE> field_ = {};
    std::vector<std::byte> body_;
    uint32_t length_ = 0;
    size_t have_ = 0; // of length field and body together
};

} // namespace avcore
