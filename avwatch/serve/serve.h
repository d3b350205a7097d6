// `avwatch serve`: the loop that keeps the history and answers HTTP.
#pragma once

#include "avwatch/history/history_settings.h"

#include <string>

namespace avwatch {

// Until SIGINT or SIGTERM. Returns the exit status; throws what is wrong at the start.
int serve(const history_settings &settings, const std::string &watch_socket);

} // namespace avwatch
