// Reads a DNS answer (RFC 1035, RFC 3596): which addresses the name that was asked has; and what a
// question asks.
//
// The message comes from the network and is believed in nothing: pointers lead backwards only and
// are counted, lengths are checked, and a name that holds anything but printable characters is
// none.
#pragma once

#include "avcore/base/ip_address.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace avcore {

struct dns_finding {
    ip_address address; // never a reserved one
    uint32_t ttl_s;
};

struct dns_answer {
    std::string name; // as asked, without the final dot
    std::vector<dns_finding> findings;
    uint16_t id = 0;
};

struct dns_question {
    std::string name; // without the final dot
    uint16_t id = 0;
};

// No findings when the message isn't an answer to one question, is malformed, or has no addresses.
dns_answer read_dns_answer(std::span<const uint8_t> message);

// None when it isn't a message with one question for a name.
std::optional<dns_question> read_dns_question(std::span<const uint8_t> message);

} // namespace avcore
