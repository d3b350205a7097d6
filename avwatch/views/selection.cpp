#include "avwatch/views/selection.h"

#include "avwatch/base/complain.h"
#include "shared/counted.h"

#include <algorithm>

namespace avwatch {
namespace {

known_clients ask_who(const invocation &asked, watch_client &avcore) {
    const settings read = read_settings(asked.settings_file);
    avcore.wait_for_greeting(ANSWER_PATIENCE);
    return {read.aliases, ask_clients(avcore)};
}

// As the watch socket writes it.
std::string verdict_word(std::string said) {
    std::ranges::replace(said, '-', ' ');
    return said;
}

} // namespace

void add_json(CLI::App &subcommand, bool &as_json) {
    subcommand.add_flag("--json", as_json, "A JSON object a line");
}

void add_selection(CLI::App &subcommand, selection &selected) {
    subcommand
        .add_option("--client", selected.client,
                    "Of this client: a MAC address, an IP address, an alias or a host name")
        ->type_name("CLIENT");
    subcommand
        .add_option("--app", selected.application,
                    "Of this application: its whole name, in any case")
        ->type_name("APP");
    subcommand
        .add_option("--name", selected.name,
                    "Whose application or host has this in its name, in any case")
        ->type_name("PART");
    add_json(subcommand, selected.as_json);
}

void add_verdict(CLI::App &subcommand, selection &selected) {
    subcommand.add_option("--verdict", selected.verdict, "With this verdict")
        ->type_name("VERDICT")
        ->check(CLI::IsMember({"none", "allow", "white-list", "deny", "rate-limit", "qos"}));
}

conversation::conversation(const invocation &asked, const selection &selected)
    : avcore(asked.watch_socket),
      clients(ask_who(asked, avcore)),
      client_key(selected.client.empty() ? "" : clients.find(selected.client)),
      filter{client_key, selected.name, selected.application, verdict_word(selected.verdict), 0} {}

void say_what_was_passed_over(const watch_client &avcore) {
    if (avcore.passed_over() != 0)
        complain(counted(avcore.passed_over(), "message of avcore's isn't",
                         "messages of avcore's aren't") +
                 " understood, and missing here");
}

} // namespace avwatch
