#include "avcore/hello/client_hello.h"

#include "avcore/base/host_text.h"

#include <optional>

namespace avcore {
namespace {

constexpr size_t HEADER_SIZE = 4; // type, and the length in 24 bits
constexpr uint8_t CLIENT_HELLO = 1;
constexpr size_t VERSION_AND_RANDOM_SIZE = 34;
constexpr uint16_t SERVER_NAME = 0;
constexpr uint8_t HOST_NAME = 0;
constexpr size_t HOST_NAME_MAX_SIZE = 255; // RFC 1035

// Takes a vector with its length in front (RFC 8446, 3.4) off `rest`; none where it doesn't fit.
std::optional<byte_view> take_vector(byte_view &rest, size_t length_size) {
    if (!rest.holds(length_size))
        return std::nullopt;
    size_t length = 0;
    for (size_t i = 0; i < length_size; ++i)
        length = length << 8 | rest.u8(i);
    const byte_view from_here = rest.from(length_size);
    if (!from_here.holds(length))
        return std::nullopt;
    rest = from_here.from(length);
    return from_here.first(length);
}

std::optional<std::string> host_in(byte_view extension) {
    std::optional<byte_view> list = take_vector(extension, 2);
    while (list && list->size() != 0) {
        const uint8_t type = list->u8(0);
        *list = list->from(1);
        const std::optional<byte_view> name = take_vector(*list, 2);
        if (!name)
            return std::nullopt;
        if (type != HOST_NAME)
            continue;
        const bool is_host = name->size() <= HOST_NAME_MAX_SIZE && is_host_text(name->text());
        return is_host ? lower_case(name->text()) : std::string();
    }
    return list ? std::optional<std::string>("") : std::nullopt;
}

// None: the lengths contradict each other.
std::optional<std::string> server_name_in(byte_view body) {
    if (!body.holds(VERSION_AND_RANDOM_SIZE))
        return std::nullopt;
    body = body.from(VERSION_AND_RANDOM_SIZE);
    const bool session_id = take_vector(body, 1).has_value();
    const bool cipher_suites = session_id && take_vector(body, 2);
    if (!cipher_suites || !take_vector(body, 1)) // compression methods
        return std::nullopt;
    if (body.size() == 0)
        return ""; // as before there were extensions
    std::optional<byte_view> extensions = take_vector(body, 2);
    if (!extensions || body.size() != 0)
        return std::nullopt;
    while (extensions->size() != 0) {
        const uint16_t type = extensions->u16(0);
        *extensions = extensions->from(2);
        const std::optional<byte_view> extension = take_vector(*extensions, 2);
        if (!extension)
            return std::nullopt;
        if (type == SERVER_NAME)
            return host_in(*extension);
    }
    return "";
}

} // namespace

client_hello read_client_hello(byte_view message) {
    using state = client_hello::state;
    if (message.size() != 0 && message.u8(0) != CLIENT_HELLO)
        return {state::malformed, {}};
    if (!message.holds(HEADER_SIZE))
        return {};
    const size_t size = size_t{message.u8(1)} << 16 | message.u16(2);
    if (size > CLIENT_HELLO_MAX - HEADER_SIZE)
        return {state::malformed, {}};
    const byte_view body = message.from(HEADER_SIZE);
    if (!body.holds(size))
        return {};
    std::optional<std::string> name = server_name_in(body.first(size));
    if (!name)
        return {state::malformed, {}};
    return {state::whole, std::move(*name)};
}

} // namespace avcore
