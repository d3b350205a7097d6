#include "avwatch/command_line.h"

#include "avwatch/base/complain.h"
#include "avwatch/base/failure.h"
#include "avwatch/export/subcommand.h"
#include "avwatch/past/past.h"
#include "avwatch/serve/serve.h"
#include "avwatch/settings/settings.h"
#include "avwatch/top/top.h"
#include "avwatch/views/views.h"
#include "avwatch/why/subcommand.h"
#include "shared/command_line.h"

#include <CLI/CLI.hpp>

namespace avwatch {
namespace {

// In the order of the help.
constexpr void (*SUBCOMMANDS[])(CLI::App &app, invocation &asked) = {
    add_top,    add_clients, add_apps,  add_flows, add_denials, add_status, add_why,
    add_export, add_usage,   add_serve, add_link,  add_forget,  add_backup,
};

void describe(CLI::App &app, invocation &asked) {
    app.fallthrough();            // --utc may stand behind the subcommand
    app.require_subcommand(0, 1); // run() says better what is missing
    app.set_version_flag("--version", "avwatch " JORN_VERSION);
    app.add_option("-c", asked.settings_file,
                   "TOML file: aliases of clients, the history, the page, metrics")
        ->type_name("CONFIG")
        ->capture_default_str();
    app.add_option("--watch-socket", asked.watch_socket, "Where avcore tells what it knows")
        ->type_name("PATH")
        ->capture_default_str();
    app.add_flag("--utc", asked.utc, "Times in UTC, not in the local zone");
    for (const auto add : SUBCOMMANDS)
        add(app, asked);
}

} // namespace

int run(int argc, char **argv) {
    invocation asked;
    CLI::App app("Shows who uses what: what avcore knows of clients and flows.\n"
                 "Exit status: 0 done, 1 refused, 2 no avcore or not understood.",
                 "avwatch");
    describe(app, asked);
    return run_chosen(app, argc, argv, asked.action, STATUS_REFUSED, complain);
}

} // namespace avwatch
