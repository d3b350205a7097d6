// `avwatch top`: the present on a terminal, as it goes on.
#pragma once

#include "avwatch/settings/settings.h"

namespace CLI {
class App;
} // namespace CLI

namespace avwatch {

void add_top(CLI::App &app, invocation &asked);

} // namespace avwatch
