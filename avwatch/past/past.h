// What is shown of the history, and done to it: usage, forget, backup, serve.
#pragma once

#include "avwatch/settings/settings.h"

namespace CLI {
class App;
} // namespace CLI

namespace avwatch {

// Each adds its subcommand, whose callback fills the invocation's action.
void add_usage(CLI::App &app, invocation &asked);
void add_serve(CLI::App &app, invocation &asked);
void add_forget(CLI::App &app, invocation &asked);
void add_backup(CLI::App &app, invocation &asked);

} // namespace avwatch
