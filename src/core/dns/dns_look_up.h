// The name of an address, from wherever the daemon can have it: its own cache, else the platform,
// whose answer the cache then learns. For the steps of detection that name a flow by its addresses.
//
// Nothing here remembers that an address has no name: the platform is asked again with every
// packet, and the packet waits for it, unless the platform's library can tell that nothing is new.
#pragma once

#include "core/base/log.h"

#include <cstdint>
#include <span>

enum class dns_look_up : uint8_t {
    not_asked, // there is no address
    no_name,   // neither knows one
    named,     // the name may be empty
    failed,    // the platform's error, which is in the log
};

// Looks an address up and leaves its name in `name`, NUL-terminated; what isn't `named` leaves it
// empty. `name` holds at least a name of the cache (64 bytes), and the platform is asked for as
// many as it holds. The error is logged in the name of `asking`.
dns_look_up look_up_dns_name(uint32_t address_be, std::span<char> name, log_origin asking);
