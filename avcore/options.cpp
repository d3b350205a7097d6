#include "avcore/options.h"

#include "avcore/netlink/link.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <set>

namespace avcore {
namespace {

constexpr int USAGE_ERROR = 2;
constexpr int64_t MAX_AGENT_DELAY_MS = 3'600'000;

void add_gate_interfaces(CLI::App &app, options &chosen, const char *what) {
    app.add_option("--inline", chosen.gate_interfaces, what)
        ->type_name("IFACE")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

void add_attach(CLI::App &app, options &chosen) {
    std::set<std::string> names;
    for (const attach_way way : ATTACH_WAYS)
        names.insert(name_of(way));
    app.add_option_function<std::string>(
           "--attach",
           [&chosen](const std::string &name) {
               for (const attach_way way : ATTACH_WAYS)
                   if (name == name_of(way))
                       chosen.attach = way;
           },
           "How the kernel is to run the gate: tcx where it has that (Linux 6.6), else clsact")
        ->type_name("WAY")
        ->check(CLI::IsMember(names));
}

void add_pins(CLI::App &app, options &chosen) {
    app.add_option("--pins", chosen.pins, "Where the gate's maps are pinned")
        ->type_name("DIR")
        ->capture_default_str();
}

void add_config(CLI::App &app, options &chosen) {
    app.add_option("-c", chosen.config,
                   "TOML file: clients, profiles, enforcement, lists of domains")
        ->type_name("CONFIG");
}

void add_run_options(CLI::App &app, options &chosen) {
    CLI::Option *capture =
        app.add_option("--capture", chosen.capture,
                       "Make this interface, for jorn to capture on, and remove it at the end")
            ->type_name("IFACE");
    app.add_option("-o", chosen.out_interface,
                   "Write into this interface of a pair made by hand; jorn captures on its peer")
        ->type_name("IFACE")
        ->excludes(capture);
    CLI::Option_group *input =
        app.add_option_group("Input", "exactly one of, unless [inline] in CONFIG names interfaces");
    input->add_option("-r", chosen.file, "Read frames from this pcap or pcapng file")
        ->type_name("FILE");
    input->add_option("-i", chosen.in_interface, "Capture frames on this interface, until SIGINT")
        ->type_name("IFACE");
    add_gate_interfaces(*input, chosen,
                        "Enforce the verdicts on this interface of clients, until SIGINT; may be "
                        "given several times");
    add_attach(app, chosen);
    add_pins(app, chosen);
    add_config(app, chosen);
    app.add_flag_callback(
        "--check", [&chosen] { chosen.wanted = task::check_config; },
        "Only say what is wrong with CONFIG, with the lists of domains and the interfaces");
    app.add_flag("--json", chosen.json, "One JSON object a flow and line instead of the table");
    app.add_option("--categories", chosen.categories,
                   "Domains and their web categories, or a list of domains (a hosts file, a block "
                   "list) and its category; may be given several times")
        ->type_name("FILE[=CATEGORY]")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
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
    app.add_option("--watch-socket", chosen.watch_socket,
                   "Where programs that show flows, or keep them, are told of them; an empty path: "
                   "nowhere")
        ->type_name("PATH")
        ->each([&chosen](const std::string &path) { chosen.wants_watch_socket = !path.empty(); })
        ->capture_default_str();
}

void add_tasks(CLI::App &app, options &chosen) {
    app.require_subcommand(0, 1);
    const auto add = [&](const char *name, const char *what, task wanted) {
        CLI::App *subcommand = app.add_subcommand(name, what);
        subcommand->callback([&chosen, wanted] { chosen.wanted = wanted; });
        add_pins(*subcommand, chosen);
        return subcommand;
    };
    CLI::App *setup = add("setup",
                          "Attach the gate to the interfaces of the clients, and say what "
                          "would carry packets past it",
                          task::set_up_gate);
    add_gate_interfaces(*setup, chosen, "Interface of clients; may be given several times");
    add_attach(*setup, chosen);
    add_config(*setup, chosen);
    add("teardown", "Detach the gate everywhere and forget its verdicts", task::tear_down_gate);
    add("status", "Show where the gate is attached, and what it does", task::show_gate)
        ->add_flag("--json", chosen.json, "As one JSON object");
    app.add_subcommand("applications", "List what the DPI engine can name a flow, for rules")
        ->callback([&chosen] { chosen.wanted = task::list_applications; });
}

size_t count_inputs(const options &chosen) {
    const bool inputs[] = {!chosen.file.empty(), !chosen.in_interface.empty(),
                           !chosen.gate_interfaces.empty()};
    return static_cast<size_t>(std::count(std::begin(inputs), std::end(inputs), true));
}

// Between all of the options; CLI11 can't say it, for the tasks need other ones.
void check(const options &chosen) {
    if (chosen.wanted == task::set_up_gate && chosen.gate_interfaces.empty() &&
        chosen.config.empty())
        throw CLI::RequiredError("--inline");
    if (chosen.wanted == task::check_config && chosen.config.empty())
        throw CLI::RequiredError("-c");
    if (chosen.wanted != task::run && chosen.wanted != task::check_config)
        return;
    if (chosen.out_interface.empty() && chosen.capture.empty() && chosen.config.empty())
        throw CLI::RequiredError("--capture, or -o,");
    if (const size_t inputs = count_inputs(chosen);
        inputs > 1 || (inputs == 0 && chosen.config.empty()))
        throw CLI::ValidationError("exactly one of -r, -i and --inline is required");
}

} // namespace

std::optional<options> parse_options(int argc, char **argv, int &status) {
    CLI::App app("Plays the access point's platform for jorn: feeds it frames with trailers, "
                 "answers its questions and prints the flows with their verdicts, or enforces "
                 "them.",
                 "avcore");
    app.set_version_flag("--version", "avcore " JORN_VERSION);
    options chosen;
    add_run_options(app, chosen);
    add_tasks(app, chosen);
    try {
        app.parse(argc, argv);
        check(chosen);
    } catch (const CLI::ParseError &error) {
        status = app.exit(error) == 0 ? 0 : USAGE_ERROR;
        if (!std::cout.flush())
            status = 1;
        return std::nullopt;
    }
    return chosen;
}

void complete(options &chosen, const config &settings) {
    const bool runs = chosen.wanted == task::run || chosen.wanted == task::check_config;
    if (!runs && chosen.wanted != task::set_up_gate)
        return;
    if (runs && chosen.out_interface.empty() && chosen.capture.empty() &&
        settings.capture.interface.empty())
        throw std::runtime_error("neither --capture nor -o is given, and " + chosen.config +
                                 " has no [capture]");
    if (chosen.safe_search.empty())
        chosen.safe_search = settings.safe_search;
    if (count_inputs(chosen) > 0)
        return;
    if (settings.inline_interfaces.empty())
        throw no_input(chosen.config + " names no interface under [inline], and none of " +
                       (runs ? "-r, -i and " : "") + "--inline is given");
    chosen.gate_interfaces = settings.inline_interfaces;
    chosen.gate_nowhere_else = true;
}

std::vector<std::string> input_interfaces(const options &chosen) {
    std::vector<std::string> inputs = chosen.gate_interfaces;
    if (!chosen.in_interface.empty())
        inputs.push_back(chosen.in_interface);
    return inputs;
}

void refuse_own_frames(const options &chosen, const std::string &output) {
    for (const std::string &input : input_interfaces(chosen))
        if (input == output || are_peers(input, output))
            throw std::runtime_error(input + " is where avcore's own frames are");
}

const std::vector<std::string> &category_sources(const options &chosen, const config &settings) {
    return chosen.categories.empty() ? settings.categories : chosen.categories;
}

} // namespace avcore
