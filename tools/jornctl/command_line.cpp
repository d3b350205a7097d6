#include "jornctl/command_line.h"

#include "control/records/arc.h"
#include "control/records/commands.h"
#include "jornctl/apply.h"
#include "jornctl/client.h"
#include "jornctl/documents.h"
#include "jornctl/failure.h"
#include "jornctl/files.h"
#include "jornctl/port_services.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstring>
#include <functional>
#include <iostream>
#include <span>

namespace jornctl {
namespace {

constexpr unsigned PATIENCE_SECONDS = 10;
constexpr unsigned PATIENCE_SECONDS_MAX = 3'600;

// The commands without a document. A new one is a row.
struct verb {
    const char *word;
    command_number command;
    const char *argument; // the number that is its payload; null for none
    const char *help;
};

constexpr verb SHOWS[] = {
    {"priority", CMD_CHECK_PRIORITY_REQ, "ID",
     "Rules, QoS and rate limits of the ARC policy of UTP ID"},
    {"dns", CMD_DNS_CACHE_SHOW_REQ, nullptr, "The DNS cache"},
};

constexpr verb FLUSHES[] = {
    {"utps", CMD_UTP_FLUSH_REQ, nullptr, "Empty both UTP tables, ARC and web; the policies stay"},
    {"arc-policies", CMD_ARC_POLICY_FLUSH_REQ, nullptr,
     "Delete the ARC policies and judge running flows anew"},
    {"policies", CMD_POLICY_CLEAN, nullptr,
     "Delete the ARC policies; running flows keep their verdicts"},
};

// A complaint quotes documents and file names, which may hold anything: it stays one line of
// bounded length and steers no terminal.
void complain(std::string line) {
    constexpr size_t shown_max = 1'000;
    if (line.size() > shown_max)
        line.replace(shown_max, std::string::npos, "...");
    std::replace_if(
        line.begin(), line.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; }, '?');
    std::cerr << "jornctl: " << line << '\n';
}

// What the user asked for. CLI11 fills the members; `action` is the chosen subcommand's.
struct request {
    std::string socket = DEFAULT_SOCKET;
    unsigned patience_seconds = PATIENCE_SECONDS;
    std::string file;
    std::string target = PORT_SERVICE_FILE;
    std::string name;
    std::string state;
    uint32_t number = 0;
    bool check_only = false;
    std::function<int()> action;

    std::string send(const command &sent) const {
        return client(socket, std::chrono::seconds(patience_seconds)).send(sent);
    }
    uint32_t is_on() const { return state == "on" ? 1 : 0; }
};

int print_answer(const std::string &reply, uint32_t number) {
    const std::string refusal = refusal_in(reply);
    if (!refusal.empty())
        throw refused("the daemon answers: " + refusal);
    if (reply.empty())
        throw refused("the daemon has no answer to command " + std::to_string(number));
    std::cout << reply;
    return STATUS_DONE;
}

document load_document(const std::string &file) {
    const std::string text = read_file(file);
    try {
        document read = read_document(text);
        for (const std::string &warning : read.warnings)
            complain(std::string("warning: ").append(file).append(": ").append(warning));
        return read;
    } catch (const refused &reason) {
        throw refused(file + ": " + reason.what());
    }
}

int apply(const request &asked) {
    const std::vector<command> commands = commands_of(load_document(asked.file));
    if (asked.check_only)
        return STATUS_DONE;
    size_t sent = 0;
    try {
        for (; sent < commands.size(); ++sent)
            asked.send(commands[sent]);
    } catch (const no_daemon &reason) {
        if (sent == 0)
            throw;
        throw no_daemon(reason.what() + std::string("; the tables are half made (") +
                        std::to_string(sent) + " of " + std::to_string(commands.size()) +
                        " commands sent), apply again");
    }
    return STATUS_DONE;
}

int install_port_services(const request &asked) {
    const std::string text = read_file(asked.file);
    const std::vector<line_fault> faults = check_port_services(text);
    for (const line_fault &fault : faults)
        complain(asked.file + ':' + std::to_string(fault.line) + ": " + fault.reason);
    if (!faults.empty())
        return STATUS_REFUSED;
    replace_file(asked.target, text);
    try {
        asked.send({CMD_PORT_SERVICE_CFG_REQ, {}});
    } catch (const no_daemon &reason) {
        throw no_daemon(reason.what() + std::string("; the file is in place for its next start"));
    }
    return STATUS_DONE;
}

int log_policy(const request &asked) {
    arc_policy_log_cfg payload = {};
    const size_t name_max = sizeof(arc_policy_wire::name) - 1;
    if (asked.name.empty() || asked.name.size() > name_max)
        throw refused("a policy's name has 1 to " + std::to_string(name_max) + " characters: \"" +
                      asked.name + '"');
    memcpy(payload.name, asked.name.data(), asked.name.size());
    payload.value = asked.is_on();
    asked.send({CMD_ARC_POLICY_LOG_CFG_REQ, record_bytes(payload)});
    return STATUS_DONE;
}

int raw(const request &asked) {
    const std::string payload = asked.file.empty() ? std::string() : read_file(asked.file);
    const std::string reply = asked.send({asked.number, payload});
    std::cout << reply;
    return refusal_in(reply).empty() ? STATUS_DONE : STATUS_REFUSED;
}

void add_apply(CLI::App &app, request &asked) {
    CLI::App *apply_app =
        app.add_subcommand("apply", "Make the daemon's tables what a document says");
    apply_app->footer(
        "Everything is checked before anything is sent. Each table that the document\n"
        "mentions is emptied first, then filled: \"policies\" deletes the ARC\n"
        "policies, \"utps\" empties both UTP tables, ARC and web, \"applications\"\n"
        "replaces the user-defined applications. The other tables stay.");
    apply_app->add_option("FILE", asked.file, "The JSON document; - is standard input")->required();
    apply_app->add_flag("--check", asked.check_only, "Check the document and send nothing");
    apply_app->callback([&] { asked.action = [&] { return apply(asked); }; });
}

void add_verbs(CLI::App &group, std::span<const verb> verbs, request &asked, bool answered) {
    group.require_subcommand(0, 1);
    for (const verb &each : verbs) {
        CLI::App *app = group.add_subcommand(each.word, each.help);
        if (each.argument != nullptr)
            app->add_option(each.argument, asked.number, "The number asked for")->required();
        app->callback([&asked, &each, answered] {
            asked.action = [&asked, &each, answered] {
                const std::string reply = asked.send(
                    {each.command,
                     each.argument == nullptr ? std::string() : record_bytes(asked.number)});
                return answered ? print_answer(reply, each.command) : STATUS_DONE;
            };
        });
    }
}

void add_port_services(CLI::App &app, request &asked) {
    CLI::App *ports = app.add_subcommand(
        "port-services", "Check a port-service file, install it and have the daemon read it");
    ports->footer("Where the daemon would skip a line, it is reported and nothing changes.");
    ports->add_option("FILE", asked.file, "Lines like 8443,tcp,4,1201,Intranet-Portal")->required();
    ports->add_option("--target", asked.target, "Where the daemon reads it")->capture_default_str();
    ports->callback([&] { asked.action = [&] { return install_port_services(asked); }; });
}

CLI::Option *add_state(CLI::App &app, request &asked) {
    return app.add_option("STATE", asked.state, "on or off")
        ->required()
        ->check(CLI::IsMember({"on", "off"}));
}

void add_switches(CLI::App &app, request &asked) {
    CLI::App *log_app =
        app.add_subcommand("log-policy", "Switch the flow log of an ARC policy on or off");
    log_app->footer("The daemon doesn't say whether there is a policy of that name.");
    log_app->add_option("NAME", asked.name, "The policy's name, letter case included")->required();
    add_state(*log_app, asked);
    log_app->callback([&] { asked.action = [&] { return log_policy(asked); }; });

    CLI::App *debug = app.add_subcommand("debug", "Switch the daemon's debug lines on or off");
    add_state(*debug, asked);
    debug->callback([&] {
        asked.action = [&] {
            asked.send({CMD_DEBUG_CFG_REQ, record_bytes(asked.is_on())});
            return STATUS_DONE;
        };
    });
}

void add_plumbing(CLI::App &app, request &asked) {
    app.add_subcommand("write", "Have the configuration files written now")->callback([&] {
        asked.action = [&] {
            return print_answer(asked.send({CMD_WRITE_CFG_REQ, {}}), CMD_WRITE_CFG_REQ);
        };
    });
    CLI::App *raw_app =
        app.add_subcommand("raw", "Send any command and print the answer's bytes as they are");
    raw_app->add_option("NUMBER", asked.number, "The command's number")->required();
    raw_app->add_option("FILE", asked.file,
                        "The payload's bytes; - is standard input; none: empty");
    raw_app->callback([&] { asked.action = [&] { return raw(asked); }; });
}

void describe(CLI::App &app, request &asked) {
    app.fallthrough();            // --socket may stand behind the subcommand
    app.require_subcommand(0, 1); // run() says better what is missing
    app.set_version_flag("--version", "jornctl " JORN_VERSION);
    app.add_option("--socket", asked.socket, "The daemon's command socket")
        ->type_name("PATH")
        ->capture_default_str();
    app.add_option("--timeout", asked.patience_seconds, "How long a command may take")
        ->type_name("SECONDS")
        ->check(CLI::Range(1U, PATIENCE_SECONDS_MAX))
        ->capture_default_str();
    add_apply(app, asked);
    CLI::App *show = app.add_subcommand("show", "Print one of the daemon's tables");
    add_verbs(*show, SHOWS, asked, true);
    CLI::App *flush = app.add_subcommand("flush", "Empty tables of the daemon");
    flush->footer("In memory only: the daemon's files keep the old state until the next change of\n"
                  "their tables, or \"jornctl write\".");
    add_verbs(*flush, FLUSHES, asked, false);
    add_port_services(app, asked);
    add_switches(app, asked);
    add_plumbing(app, asked);
}

int usage_error(const CLI::ParseError &error) {
    std::string line = error.what();
    std::replace(line.begin(), line.end(), '\n', ' ');
    complain(line + " (--help says more)");
    return STATUS_REFUSED;
}

} // namespace

int run(int argc, char **argv) {
    request asked;
    CLI::App app("Configures jorn and shows what it knows, over its command socket.\n"
                 "Exit status: 0 done, 1 refused, 2 no daemon. The daemon answers what it is\n"
                 "asked to show; whether it took a configuration, only its log says.",
                 "jornctl");
    describe(app, asked);
    try {
        app.parse(argc, argv);
        if (!asked.action)
            throw refused("what to do is missing (--help lists the subcommands)");
        const int status = asked.action();
        if (!std::cout.flush())
            throw refused(std::string("standard output: ") + strerror(errno));
        return status;
    } catch (const CLI::ParseError &error) {
        return error.get_exit_code() == 0 ? app.exit(error) : usage_error(error);
    } catch (const no_daemon &error) {
        complain(error.what());
        return STATUS_NO_DAEMON;
    } catch (const std::exception &error) {
        complain(error.what());
        return STATUS_REFUSED;
    }
}

} // namespace jornctl
