// The daemon's listings beside its tables: what they say against them, and what files don't tell.
#pragma once

#include "jornctl/client/client.h"
#include "jornctl/tables/daemon_tables.h"

#include <string>

namespace jornctl {

// The first thing that a listing says otherwise, or nothing. A command that only emptied a table
// shows here alone, for it writes no file.
std::string contradiction(const daemon_tables &tables, const client &daemon);

// Whether the listings show no more, and no less, than the tables have a record for.
struct listings_fit {
    bool arc = false;
    bool web_utps = false;
    bool bindings = false;
};

// Puts names, UTP entries and links in their places, as far as the listings tell.
listings_fit complete_from_listings(daemon_tables &tables, const client &daemon);

} // namespace jornctl
