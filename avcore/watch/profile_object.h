// What avcore knows of a client's flow to a server that may not be there yet, for the watch socket.
#pragma once

#include "avcore/engine/dpi.h"
#include "avcore/names/dns_names.h"
#include "avcore/settings/config.h"
#include "avcore/watch/questions.h"
#include "avcore/web/url_agent.h"

#include <cstdint>
#include <string>

namespace avcore {

struct profile_sources {
    const config &settings;
    std::string captured_on; // of a client; empty where it isn't known
    const dns_names &names;
    int64_t time_us;    // of them
    dpi_engine *engine; // null: switched off
    const url_agent &agent;
};

void append_profile(std::string &out, const profile_question &asked,
                    const profile_sources &sources);

} // namespace avcore
