#include "avwatch/why/subcommand.h"

#include "avwatch/why/why.h"
#include "shared/command_line.h"

#include <memory>

namespace avwatch {

void add_why(CLI::App &app, invocation &asked) {
    subcommand command(
        app, "why", "Why a flow is blocked, or isn't",
        "Of a flow that is there or isn't yet: by which part of the document it is judged, and by\n"
        "which ones it would be without that. The daemon's own code decides; nothing is changed.\n"
        "Exit status: 0 it passes, 1 it is blocked, 2 nobody can say.");
    const auto wanted = std::make_shared<why_settings>();
    command.add_option("CLIENT", wanted->client,
                       "A MAC address, an IP address, an alias or a host name",
                       {.is_required = true});
    command.add_option("SERVER", wanted->server, "IP address or name, with :PORT or without");
    command.add_option("--name", wanted->name, "What the server is called",
                       {.type_name = "DOMAIN"});
    command.add_option("--policy", wanted->policy_file,
                       "A document to try: what it doesn't mention is as it is in force",
                       {.type_name = "FILE"});
    CLI::Option *config =
        command.add_option("-c", wanted->config_file, "avcore's TOML file; then avcore isn't asked",
                           {.type_name = "CONFIG"});
    command.add_option("--captured-on", wanted->captured_on,
                       "The interface that rules of that file may name",
                       {.type_name = "INTERFACE", .needs = config});
    command.add_option("--categories", wanted->categories,
                       "Web categories of domains, as avcore takes them; several times",
                       "FILE[=CATEGORY]");
    command.add_option("--protocol", wanted->protocol, "TCP, where no flow says otherwise",
                       {.one_of = {"tcp", "udp"}});
    command.add_flag("--json", wanted->as_json, "A JSON object");
    command.callback(
        [&asked, wanted] { asked.action = [&asked, wanted] { return explain(*wanted, asked); }; });
}

} // namespace avwatch
