// How the subcommands come to the history's file.
#pragma once

#include "avwatch/history/database.h"

#include <CLI/CLI.hpp>
#include <string>

namespace avwatch {

void add_history(CLI::App &subcommand, std::string &path);

// One of the present version. Throws refused, database_error and foreign_history.
database open_history(const std::string &path, database::access wanted);

} // namespace avwatch
