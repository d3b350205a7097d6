// The notice that a station went to another access point.
#pragma once

#include "jornctl/client/client.h"

#include <string>

namespace jornctl {

// As the user wrote it; the last two may be empty.
struct roaming {
    std::string station;
    std::string to;
    std::string address; // of the access point `to`
    std::string from;
    std::string from_address;
};

// Command 9. Throws refused.
command roam_command(const roaming &told);

} // namespace jornctl
