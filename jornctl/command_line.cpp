#include "jornctl/command_line.h"

#include "control/records/arc.h"
#include "jornctl/apply_task.h"
#include "jornctl/base/complain.h"
#include "jornctl/base/failure.h"
#include "jornctl/base/files.h"
#include "jornctl/base/printable.h"
#include "jornctl/client/client.h"
#include "jornctl/client/commands.h"
#include "jornctl/client/listings.h"
#include "jornctl/client/roam.h"
#include "jornctl/document_tasks.h"
#include "jornctl/documents/documents.h"
#include "jornctl/documents/port_services.h"
#include "jornctl/fields/web_fields.h"
#include "shared/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstring>
#include <functional>
#include <iostream>

namespace jornctl {
namespace {

constexpr unsigned PATIENCE_SECONDS = 10;
constexpr unsigned PATIENCE_SECONDS_MAX = 3'600;

struct flush {
    const char *word;
    command_number command;
    const char *help;
};

constexpr flush FLUSHES[] = {
    {"utps", CMD_UTP_FLUSH_REQ, "Empty both UTP tables, ARC and web; the policies stay"},
    {"arc-policies", CMD_ARC_POLICY_FLUSH_REQ,
     "Delete the ARC policies and judge running flows anew"},
    {"policies", CMD_POLICY_CLEAN, "Delete the ARC policies; running flows keep their verdicts"},
    {"web", CMD_WEB_POLICY_FLUSH_REQ, "Delete the web policies; bindings and web UTPs stay"},
    {"wifi-calling", CMD_WIFICALLING_POLICY_FLUSH_REQ,
     "Delete the carriers of Wi-Fi calling; the bindings stay"},
};

// What the user asked for. CLI11 fills the members; `action` is the chosen subcommand's.
struct request {
    std::string socket = DEFAULT_SOCKET;
    unsigned patience_seconds = PATIENCE_SECONDS;
    std::string file;
    std::string target = PORT_SERVICE_FILE;
    std::string name;
    std::string state;
    roaming roamed;
    uint32_t number = 0;
    apply_settings applied;
    bool as_json = false;
    bool check_only = false;
    std::function<int()> action;
    int status_refused = STATUS_REFUSED;

    client daemon() const { return {socket, std::chrono::seconds(patience_seconds)}; }
    std::string send(const command &sent) const { return daemon().send(sent); }
    uint32_t is_on() const { return state == "on" ? 1 : 0; }
};

std::string payload_of(const request &asked, const listing &wanted) {
    if (wanted.argument == listing_argument::ID)
        return record_bytes(asked.number);
    if (wanted.argument == listing_argument::NONE)
        return {};
    const size_t name_max = sizeof(web_intf_wire::ifname) - 1;
    if (asked.name.empty() || asked.name.size() > name_max)
        throw refused("an interface's name has 1 to " + std::to_string(name_max) +
                      " characters: \"" + asked.name + '"');
    return asked.name;
}

// Names in a listing come from packets and from whoever configured the daemon.
int show(const request &asked, const listing &wanted) {
    const std::string text = ask(asked.daemon(), wanted, payload_of(asked, wanted));
    if (asked.as_json)
        std::cout << printable(to_text(wanted.parse(text)), "\n");
    else
        std::cout << printable(text, "\n\t");
    return STATUS_DONE;
}

int write_files(const request &asked) {
    const std::string reply = asked.send({CMD_WRITE_CFG_REQ, {}});
    check_answer(reply, CMD_WRITE_CFG_REQ);
    std::cout << printable(reply, "\n");
    return STATUS_DONE;
}

int install_port_services(const request &asked) {
    const std::string text = read_file(asked.file);
    bool is_faulty = false;
    for (const skipped_line &each : check_port_services(text)) {
        complain(asked.file + ':' + std::to_string(each.line) + ": " + each.reason);
        is_faulty |= !each.is_meant;
    }
    if (is_faulty)
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
    return refusal_in(asked.number, reply).empty() ? STATUS_DONE : STATUS_REFUSED;
}

int decode(const request &asked) {
    std::cout << printable(describe({asked.number, read_file(asked.file)}), "\n");
    return STATUS_DONE;
}

int print_schema() {
    std::cout << to_text(document_schema());
    return STATUS_DONE;
}

int print_categories() {
    for (const named_number &each : CATEGORY_NAMES)
        std::cout << each.number << '\t' << each.word << '\n';
    return STATUS_DONE;
}

void add_apply(CLI::App &app, request &asked) {
    CLI::App *apply_app =
        app.add_subcommand("apply", "Make the daemon's tables what a document says");
    apply_app->footer(
        "Everything is checked before anything is sent, and only what differs is sent\n"
        "where it is known what the daemon has. Each table that the document mentions\n"
        "holds in the end what it says; \"utps\" or \"web_utps\" alone empties the other\n"
        "one, too. The other tables stay, and so do the bindings that \"web_interfaces\"\n"
        "and \"wificalling_interfaces\" don't name. The daemon's files hold in the end\n"
        "what the tables hold; but that the carriers are gone is only written with the\n"
        "next carrier or binding.");
    apply_app->add_option("FILE", asked.applied.file, "The JSON document; - is standard input")
        ->required();
    CLI::Option *check = apply_app->add_flag("--check", asked.applied.check_only,
                                             "Check the document and send nothing");
    apply_app
        ->add_flag("--dry-run", asked.applied.dry_run, "Print what would be sent, and send nothing")
        ->excludes(check);
    apply_app->add_flag("--strict", asked.applied.strict, "Refuse a document that is warned of");
    apply_app->callback(
        [&] { asked.action = [&] { return apply_document(asked.applied, asked.daemon()); }; });
}

void add_comparisons(CLI::App &app, request &asked) {
    CLI::App *diff = app.add_subcommand("diff", "Print what applying a document would change");
    diff->footer("Exit status: 0 nothing, 1 something, 2 the document is wrong or there is no\n"
                 "daemon. What can't be known of the daemon's tables is said, and doesn't count.");
    diff->add_option("FILE", asked.file, "The JSON document; - is standard input")->required();
    diff->add_flag("--json", asked.as_json, "As JSON");
    diff->callback([&] {
        asked.status_refused = STATUS_NOT_COMPARED;
        asked.action = [&] { return show_differences(asked.file, asked.as_json, asked.daemon()); };
    });

    CLI::App *exported = app.add_subcommand("export", "Print the document that is in force");
    exported->footer("It has all tables. After a restart of the daemon, or where somebody else\n"
                     "configures it, it is made of the saved files and the listings, which don't\n"
                     "tell all: what is unknown is said.");
    exported->add_flag("--check", asked.check_only, "Ask nothing of the daemon");
    exported->callback([&] {
        asked.action = [&] {
            const client daemon = asked.daemon();
            return export_document(asked.check_only ? nullptr : &daemon);
        };
    });
}

void add_shows(CLI::App &app, request &asked) {
    CLI::App *group = app.add_subcommand("show", "Print one of the daemon's tables");
    group->require_subcommand(0, 1);
    group->add_flag("--json", asked.as_json, "As JSON");
    for (const listing &each : listings()) {
        CLI::App *noun = group->add_subcommand(each.word, each.help);
        if (each.argument == listing_argument::ID)
            noun->add_option("ID", asked.number, "The number asked for")->required();
        if (each.argument == listing_argument::INTERFACE)
            noun->add_option("INTERFACE", asked.name, "The interface's name")->required();
        noun->callback(
            [&asked, &each] { asked.action = [&asked, &each] { return show(asked, each); }; });
    }
}

void add_flushes(CLI::App &app, request &asked) {
    CLI::App *group = app.add_subcommand("flush", "Empty tables of the daemon");
    group->require_subcommand(0, 1);
    group->footer(
        "In memory only: the daemon's files keep the old state until the next change of\n"
        "their tables, or \"jornctl write\". The file of Wi-Fi calling isn't among those\n"
        "that \"write\" writes.");
    for (const flush &each : FLUSHES) {
        group->add_subcommand(each.word, each.help)->callback([&asked, &each] {
            asked.action = [&asked, &each] {
                asked.send({each.command, {}});
                return STATUS_DONE;
            };
        });
    }
}

void add_port_services(CLI::App &app, request &asked) {
    CLI::App *ports = app.add_subcommand(
        "port-services", "Check a port-service file, install it and have the daemon read it");
    ports->footer("Where the daemon would skip a line, it is reported and nothing changes. Blank\n"
                  "lines and lines that begin with # are reported, too, and do no harm.");
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

void add_roam(CLI::App &app, request &asked) {
    CLI::App *roam = app.add_subcommand(
        "roam", "Say that a station went to another access point: its flows' names follow it");
    roam->footer("Exit status 0 says that the daemon was told. Whether there was anything to send\n"
                 "and whether it arrived, only its log and the other access point say.");
    roaming &told = asked.roamed;
    roam->add_option("--station", told.station, "The station")->required()->type_name("MAC");
    roam->add_option("--to", told.to, "The access point where it is")->required()->type_name("MAC");
    roam->add_option("--address", told.address, "That access point's IPv4 or IPv6 address")
        ->required()
        ->type_name("ADDR");
    roam->add_option("--from", told.from, "The access point that it left")->type_name("MAC");
    roam->add_option("--from-address", told.from_address, "Its address")->type_name("ADDR");
    roam->callback([&] {
        asked.action = [&] {
            asked.send(roam_command(asked.roamed));
            return STATUS_DONE;
        };
    });
}

void add_plumbing(CLI::App &app, request &asked) {
    app.add_subcommand("write", "Have the configuration files written now, but for Wi-Fi calling's")
        ->callback([&] { asked.action = [&] { return write_files(asked); }; });
    CLI::App *raw_app =
        app.add_subcommand("raw", "Send any command and print the answer's bytes as they are");
    raw_app->add_option("NUMBER", asked.number, "The command's number")->required();
    raw_app->add_option("FILE", asked.file,
                        "The payload's bytes; - is standard input; none: empty");
    raw_app->callback([&] { asked.action = [&] { return raw(asked); }; });
}

void add_descriptions(CLI::App &app, request &asked) {
    app.add_subcommand("schema", "Print the JSON Schema of the documents that apply takes")
        ->callback([&] { asked.action = print_schema; });
    app.add_subcommand("categories", "Print the numbers and names of web categories")
        ->callback([&] { asked.action = print_categories; });
    CLI::App *decode_app =
        app.add_subcommand("decode", "Print a command's payload as \"apply --dry-run\" does");
    decode_app->add_option("NUMBER", asked.number, "The command's number")->required();
    decode_app->add_option("FILE", asked.file, "The payload's bytes; - is standard input")
        ->required();
    decode_app->callback([&] { asked.action = [&] { return decode(asked); }; });
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
    add_comparisons(app, asked);
    add_shows(app, asked);
    add_flushes(app, asked);
    add_port_services(app, asked);
    add_switches(app, asked);
    add_roam(app, asked);
    add_plumbing(app, asked);
    add_descriptions(app, asked);
}

} // namespace

int run(int argc, char **argv) {
    request asked;
    CLI::App app("Configures jorn and shows what it knows, over its command socket.\n"
                 "Exit status: 0 done, 1 refused, 2 no daemon or not understood. The daemon\n"
                 "answers what it is asked to show; whether it took a configuration, only its\n"
                 "log says.",
                 "jornctl");
    describe(app, asked);
    return run_chosen(app, argc, argv, asked.action, asked.status_refused, complain);
}

} // namespace jornctl
