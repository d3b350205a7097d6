// `avwatch serve`: the loop that keeps the history and answers HTTP.
#pragma once

#include "avwatch/settings/settings.h"

#include <string>

namespace avwatch {

// Until SIGINT or SIGTERM. Returns the exit status; throws what is wrong at the start. Days are
// local ones on the page, or UTC's.
int serve(const settings &read, const std::string &watch_socket, bool utc);

// Prints a link with which somebody from elsewhere may look. Throws refused.
int print_link(const http_settings &http);

} // namespace avwatch
