// How the subcommands come to the history's file.
#pragma once

#include "avwatch/client/known_clients.h"
#include "avwatch/history/database.h"
#include "shared/command_line.h"

#include <string>

namespace avwatch {

void add_history(subcommand &command, std::string &path);

// One of the present version. Throws refused, database_error and foreign_history.
database open_history(const std::string &path, database::access wanted);

// The key of who is meant, as known_clients finds it. Throws refused.
std::string find_client(database &file, const client_aliases &aliases, const std::string &meant);

} // namespace avwatch
