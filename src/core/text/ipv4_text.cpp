#include "core/text/ipv4_text.h"

#include <array>
#include <cstring>

namespace {

// A number's digits and how many they are. All four bytes are copied, and the length overwritten by
// what follows.
struct octet_text {
    char digits[3];
    uint8_t length;
};
static_assert(sizeof(octet_text) == 4);

constexpr std::array<octet_text, 256> OCTETS = [] {
    std::array<octet_text, 256> octets = {};
    for (unsigned value = 0; value < octets.size(); ++value) {
        octet_text &octet = octets[value];
        for (unsigned unit = 100; unit != 0; unit /= 10) {
            if (value >= unit || unit == 1)
                octet.digits[octet.length++] = static_cast<char>('0' + value / unit % 10);
        }
    }
    return octets;
}();

char *write_octet(char *to, uint8_t value) {
    memcpy(to, &OCTETS[value], sizeof(octet_text));
    return to + OCTETS[value].length;
}

} // namespace

char *write_ipv4(char *to, uint32_t address_be) {
    uint8_t octets[4];
    memcpy(octets, &address_be, sizeof octets);
    to = write_octet(to, octets[0]);
    for (int i = 1; i < 4; ++i) {
        *to++ = '.';
        to = write_octet(to, octets[i]);
    }
    return to;
}
