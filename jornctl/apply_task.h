// `jornctl apply`: from a file to the daemon's tables, with everything that may be said against it.
#pragma once

#include "jornctl/client/client.h"

#include <string>

namespace jornctl {

struct apply_settings {
    std::string file;
    bool check_only = false;
    bool dry_run = false;
    bool strict = false;
};

// Returns the exit status, once all mistakes and warnings are printed. Throws refused and no_daemon
// where it can't go on.
int apply_document(const apply_settings &wanted, const client &daemon);

} // namespace jornctl
