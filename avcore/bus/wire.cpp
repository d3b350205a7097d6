#include "avcore/bus/wire.h"

#include "core/text/text.h"

#include <arpa/inet.h>
#include <cstring>

namespace avcore {
namespace {

// A name that fills its field has no NUL.
template <size_t N>
void put_name(char (&field)[N], std::string_view name) {
    memcpy(field, name.data(), std::min(name.size(), N));
}

} // namespace

std::vector<std::byte> encode_message(std::string_view sender, std::string_view topic,
                                      std::span<const std::byte> payload) {
    bus_delivery names = {};
    put_name(names.sender, sender);
    put_name(names.topic, topic);
    const uint32_t length_be = htonl(static_cast<uint32_t>(sizeof names + payload.size()));
    std::vector<std::byte> bytes(sizeof length_be + sizeof names + payload.size());
    memcpy(bytes.data(), &length_be, sizeof length_be);
    memcpy(bytes.data() + sizeof length_be, &names, sizeof names);
    if (!payload.empty())
        memcpy(bytes.data() + sizeof length_be + sizeof names, payload.data(), payload.size());
    return bytes;
}

message_names names_of(std::span<const std::byte> body) {
    const auto field = [&](size_t offset, size_t size) {
        const auto *text = reinterpret_cast<const char *>(body.data() + offset);
        return std::string_view(text, strnlen(text, size));
    };
    return {field(offsetof(bus_delivery, sender), sizeof bus_delivery::sender),
            field(offsetof(bus_delivery, topic), sizeof bus_delivery::topic)};
}

std::span<std::byte> wire_reader::room() {
    if (have_ >= WIRE_LENGTH_SIZE && have_ == WIRE_LENGTH_SIZE + body_.size())
        have_ = 0;
    if (have_ < WIRE_LENGTH_SIZE)
        return std::span(field_).subspan(have_);
    return std::span(body_).subspan(have_ - WIRE_LENGTH_SIZE);
}

wire_reader::state wire_reader::took(size_t size) {
    const bool in_field = have_ < WIRE_LENGTH_SIZE;
    have_ += size;
    if (have_ < WIRE_LENGTH_SIZE)
        return state::more;
    if (in_field) {
        memcpy(&length_, field_.data(), sizeof length_);
        length_ = ntohl(length_);
        if (length_ < WIRE_BODY_MIN || length_ > WIRE_BODY_MAX)
            return state::bad_length;
        body_.resize(length_);
    }
    return have_ == WIRE_LENGTH_SIZE + body_.size() ? state::message : state::more;
}

} // namespace avcore
