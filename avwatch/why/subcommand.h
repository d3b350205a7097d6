// The command line of `avwatch why`.
#pragma once

#include "avwatch/settings/settings.h"

#include <CLI/CLI.hpp>

namespace avwatch {

void add_why(CLI::App &app, invocation &asked);

} // namespace avwatch
