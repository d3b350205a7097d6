// What gave a flow its name and its verdict, as its row keeps it.
#pragma once

#include <cstdint>
#include <string>

namespace avcore {

enum class name_source : uint8_t {
    none, // there is no name
    dns,
    handshake,
    earlier_handshake, // of the client's, with the same server
    engine,
    administrator,
    address_asked_for, // the web's domain
    carrier,
    port,   // a well-known one
    tables, // the daemon's: its cache
};

enum class verdict_source : uint8_t {
    none, // no verdict, or one without a policy that fits
    application_policy,
    web_policy,
    late_answer, // by a web policy, of the URL-filtering agent's
    wificalling,
};

struct verdict_reason {
    name_source named_by = name_source::none;
    verdict_source by = verdict_source::none;
    uint16_t app_id = 0; // of the engine's name, like
    uint16_t cat_id = 0;
    uint32_t profile = 0;    // of an application policy: the UTP by which was decided,
    bool of_client = false;  // and whether it is the client's; else the server's
    std::string web_reason;  // of a web policy: its category or list, in words
    std::string denial_text; // of a denial, for the log
};

} // namespace avcore
