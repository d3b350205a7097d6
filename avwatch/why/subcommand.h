// The command line of `avwatch why`.
#pragma once

#include "avwatch/settings/settings.h"

namespace CLI {
class App;
} // namespace CLI

namespace avwatch {

void add_why(CLI::App &app, invocation &asked);

} // namespace avwatch
