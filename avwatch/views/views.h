// What people and scripts are shown of the present: clients, applications, flows, denials, and the
// state of avcore. For people tables, for scripts a JSON object a line.
#pragma once

#include "avwatch/settings/settings.h"

namespace CLI {
class App;
} // namespace CLI

namespace avwatch {

// Each adds its subcommand, whose callback fills the invocation's action.
void add_clients(CLI::App &app, invocation &asked);
void add_apps(CLI::App &app, invocation &asked);
void add_flows(CLI::App &app, invocation &asked);
void add_denials(CLI::App &app, invocation &asked);
void add_status(CLI::App &app, invocation &asked);

} // namespace avwatch
