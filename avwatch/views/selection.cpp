#include "avwatch/views/selection.h"

#include "avcore/base/host_text.h"
#include "avwatch/base/complain.h"
#include "avwatch/present/flow_names.h"
#include "shared/counted.h"

#include <algorithm>

namespace avwatch {
namespace {

known_clients ask_who(const settings &read, watch_client &avcore) {
    avcore.wait_for_greeting(ANSWER_PATIENCE);
    return {read.aliases, ask_clients(avcore)};
}

// As the watch socket writes it.
std::string verdict_word(std::string said) {
    std::ranges::replace(said, '-', ' ');
    return said;
}

} // namespace

void add_json(subcommand &command, bool &as_json) {
    command.add_flag("--json", as_json, "A JSON object a line");
}

void add_selection(subcommand &command, selection &selected) {
    command.add_option("--client", selected.client,
                       "Of this client: a MAC address, an IP address, an alias or a host name",
                       {.type_name = "CLIENT"});
    command.add_option("--app", selected.application,
                       "Of this application: its whole name, in any case", {.type_name = "APP"});
    command.add_option("--name", selected.name,
                       "Whose application or host has this in its name, in any case",
                       {.type_name = "PART"});
    add_json(command, selected.as_json);
}

void add_verdict(subcommand &command, selection &selected) {
    command.add_option("--verdict", selected.verdict, "With this verdict",
                       {.type_name = "VERDICT",
                        .one_of = {"none", "allow", "white-list", "deny", "rate-limit", "qos"}});
}

conversation::conversation(const invocation &asked, const selection &wanted, const settings &read)
    : selected(wanted),
      names(read.history.names),
      avcore(asked.watch_socket),
      clients(ask_who(read, avcore)),
      client_key(selected.client.empty() ? "" : clients.find(selected.client)),
      filter{client_key, names == names_kept::full ? selected.name : "",
             names == names_kept::full ? selected.application : "", verdict_word(selected.verdict),
             0} {}

flow_record conversation::shown(flow_record flow) const {
    return with_names(std::move(flow), names);
}

bool conversation::is_wanted(const flow_record &flow) const {
    if (names == names_kept::full)
        return true; // avcore has chosen
    const std::string application = avcore::lower_case(flow.application);
    const std::string part = avcore::lower_case(selected.name);
    return (selected.application.empty() ||
            application == avcore::lower_case(selected.application)) &&
           (application.find(part) != std::string::npos ||
            avcore::lower_case(flow.host).find(part) != std::string::npos);
}

void conversation::ask_flows(const std::function<void(const flow_record &flow)> &take) {
    avwatch::ask_flows(avcore, filter, [&](flow_record told) {
        const flow_record flow = shown(std::move(told));
        if (is_wanted(flow))
            take(flow);
    });
}

void say_what_was_passed_over(const watch_client &avcore) {
    if (avcore.passed_over() != 0)
        complain(counted(avcore.passed_over(), "message of avcore's isn't",
                         "messages of avcore's aren't") +
                 " understood, and missing here");
}

} // namespace avwatch
