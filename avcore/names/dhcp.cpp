#include "avcore/names/dhcp.h"

#include "packet/decode/cursor.h"

#include <algorithm>
#include <string_view>

namespace avcore {
namespace {

constexpr uint8_t BOOTREQUEST = 1;
constexpr uint8_t HARDWARE_ETHERNET = 1;
constexpr size_t HARDWARE_ADDRESS_AT = 28;
constexpr size_t COOKIE_AT = 236;
constexpr std::array<uint8_t, 4> COOKIE = {99, 130, 83, 99};
constexpr size_t OPTIONS_AT = COOKIE_AT + COOKIE.size();

enum option : uint8_t { PAD = 0, HOST_NAME = 12, END = 255 };

bool is_own_request(const byte_view &in, const std::array<uint8_t, 6> &sender) {
    std::array<uint8_t, 6> hardware = {};
    std::array<uint8_t, 4> cookie = {};
    return in.copy(HARDWARE_ADDRESS_AT, hardware.data(), hardware.size()) &&
           in.copy(COOKIE_AT, cookie.data(), cookie.size()) && in.u8(0) == BOOTREQUEST &&
           in.u8(1) == HARDWARE_ETHERNET && in.u8(2) == hardware.size() && hardware == sender &&
           cookie == COOKIE;
}

// Empty where there is none, or it doesn't lie in the message.
std::string_view find_option(const byte_view &in, uint8_t wanted) {
    size_t at = OPTIONS_AT;
    while (at < in.size() && in.u8(at) != END) {
        if (in.u8(at) == PAD) {
            ++at;
            continue;
        }
        const size_t size = in.u8(at + 1);
        if (!in.holds(at + 2 + size))
            break;
        if (in.u8(at) == wanted)
            return in.from(at + 2).first(size).text();
        at += 2 + size;
    }
    return {};
}

} // namespace

std::string host_name_in_request(std::span<const uint8_t> message,
                                 const std::array<uint8_t, 6> &sender) {
    const byte_view in(message.data(), message.size());
    if (!is_own_request(in, sender))
        return {};
    std::string_view name = find_option(in, HOST_NAME);
    name =
        name.substr(0, name.find_last_not_of('\0') + 1); // some clients send an end (RFC 2132, 2)
    const bool printable =
        std::all_of(name.begin(), name.end(), [](char c) { return c > ' ' && c <= '~'; });
    return printable ? std::string(name) : std::string();
}

} // namespace avcore
