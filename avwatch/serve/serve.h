// `avwatch serve`: the loop that keeps the history and answers HTTP.
#pragma once

#include "avwatch/settings/settings.h"

#include <string>

namespace CLI {
class App;
} // namespace CLI

namespace avwatch {

// Until SIGINT or SIGTERM. Returns the exit status; throws what is wrong at the start. Days are
// local ones on the page, or UTC's.
int serve(const settings &read, const std::string &watch_socket, bool utc);

// Adds the subcommand that prints a link with which somebody from elsewhere may look.
void add_link(CLI::App &app, invocation &asked);

} // namespace avwatch
