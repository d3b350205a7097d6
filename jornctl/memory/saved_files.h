// The daemon's saved files: whether they are as they were, and what they hold.
#pragma once

#include "jornctl/tables/daemon_tables.h"

#include <map>
#include <optional>
#include <string>

namespace jornctl {

// Their hashes by their names; nothing for a file that isn't there. They tell a change, and guard
// against nobody. Throws refused where one can't be read.
using file_hashes = std::map<std::string, std::optional<std::string>>;
file_hashes hash_saved_files(const std::string &folder);

// What the daemon restores from them at its start. Throws refused where one can't be read.
daemon_tables tables_in_files(const std::string &folder);

// Whether the files hold what they can of the tables, and nothing else. They don't on a full disk,
// nor where somebody else has sent something. Throws refused where one can't be read.
bool are_saved(const daemon_tables &tables, const std::string &folder);

} // namespace jornctl
