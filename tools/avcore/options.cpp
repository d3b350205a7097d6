#include "avcore/options.h"

#include "avcore/link.h"

#include <CLI/CLI.hpp>
#include <iostream>

namespace avcore {
namespace {

constexpr int USAGE_ERROR = 2;
constexpr int64_t MAX_AGENT_DELAY_MS = 3'600'000;

} // namespace

std::optional<options> parse_options(int argc, char **argv, int &status) {
    CLI::App app("Plays the access point's platform for jorn: feeds it frames with trailers, "
                 "answers its questions and prints the flows with their verdicts.",
                 "avcore");
    app.set_version_flag("--version", "avcore " JORN_VERSION);
    options chosen;
    app.add_option("-o", chosen.out_interface, "Interface to write into; jorn captures on its peer")
        ->required()
        ->type_name("IFACE");
    CLI::Option_group *input = app.add_option_group("Input", "exactly one of");
    input->add_option("-r", chosen.file, "Read frames from this pcap or pcapng file")
        ->type_name("FILE");
    input->add_option("-i", chosen.in_interface, "Capture frames on this interface, until SIGINT")
        ->type_name("IFACE");
    input->require_option(1);
    app.add_option("-c", chosen.config, "TOML file: clients, profiles, platform values")
        ->type_name("CONFIG");
    app.add_flag("--json", chosen.json, "One JSON object a flow and line instead of the table");
    app.add_option("--categories", chosen.categories, "Text file: domains and their web categories")
        ->type_name("FILE");
    app.add_option("--safe-search", chosen.safe_search, "Folder for the resolvers' files")
        ->type_name("DIR");
    app.add_option("--url-agent-delay", chosen.agent_delay_ms,
                   "The URL-filtering agent's first answer about a domain comes so much later")
        ->type_name("MS")
        ->check(CLI::Range(int64_t{0}, MAX_AGENT_DELAY_MS));
    app.add_flag("--url-agent-down", chosen.agent_down,
                 "The agent can't reach its server, until SIGUSR2");
    app.add_option("--command-socket", chosen.command_socket,
                   "The daemon's command socket, for the agent's late answers")
        ->type_name("PATH")
        ->capture_default_str();
    try {
        app.parse(argc, argv);
        if (chosen.in_interface == chosen.out_interface)
            throw CLI::ValidationError("-i", "can't be the interface of -o: avcore would feed "
                                             "what it wrote");
        if (are_peers(chosen.in_interface, chosen.out_interface))
            throw CLI::ValidationError("-i", "can't be the peer of -o's interface: avcore would "
                                             "feed what it wrote");
    } catch (const CLI::ParseError &error) {
        status = app.exit(error) == 0 ? 0 : USAGE_ERROR;
        if (!std::cout.flush())
            status = 1;
        return std::nullopt;
    }
    return chosen;
}

} // namespace avcore
