// `avwatch export`: the records that collectors get, as lines of JSON.
#pragma once

#include "avwatch/settings/settings.h"

namespace CLI {
class App;
} // namespace CLI

namespace avwatch {

// Adds the subcommand, whose callback fills the invocation's action.
void add_export(CLI::App &app, invocation &asked);

} // namespace avwatch
