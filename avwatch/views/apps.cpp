#include "avwatch/base/failure.h"
#include "avwatch/base/table.h"
#include "avwatch/base/units.h"
#include "avwatch/views/selection.h"
#include "avwatch/views/usage.h"
#include "avwatch/views/views.h"

#include <iostream>
#include <memory>
#include <set>

namespace avwatch {
namespace {

int show_apps(const invocation &asked, const selection &selected) {
    conversation talk(asked, selected);
    std::map<std::string, std::set<std::string>> clients;
    const usages all = usages_of_flows(talk, [&](const flow_record &flow) {
        clients[flow.application].insert(talk.clients.key_of(flow.client_mac, flow.client));
        return flow.application;
    });
    table lines({{"APPLICATION"},
                 {"CLIENTS", true},
                 {"FLOWS", true},
                 {"UP", true},
                 {"DOWN", true},
                 {"UP NOW", true},
                 {"DOWN NOW", true},
                 {"DROPPED", true},
                 {"LAST SEEN"}});
    for (const std::string &name : by_bytes(all)) {
        const usage &used = all.at(name);
        if (selected.as_json) {
            nlohmann::ordered_json object = {{"application", name},
                                             {"clients", clients[name].size()}};
            put_usage(object, used);
            std::cout << to_line(object) << '\n';
            continue;
        }
        lines.add({name, std::to_string(clients[name].size()), std::to_string(used.flows),
                   size_text(used.up.bytes), size_text(used.down.bytes), rate_text(used.up_rate),
                   rate_text(used.down_rate),
                   std::to_string(used.dropped.denied + used.dropped.limited),
                   time_text(used.last_us, asked.utc)});
        lines.print_many(std::cout);
    }
    if (!selected.as_json)
        lines.print(std::cout);
    say_what_was_passed_over(talk.avcore);
    return STATUS_DONE;
}

} // namespace

void add_apps(CLI::App &app, invocation &asked) {
    subcommand command(
        app, "apps", "What is used, by application",
        "Sums of the flows that avcore has in its table, those of long ago excepted. Flows\n"
        "without a name stand together as \"-\". UP NOW and DOWN NOW come of a second look, two\n"
        "seconds later.");
    const auto selected = std::make_shared<selection>();
    add_selection(command, *selected);
    add_verdict(command, *selected);
    command.callback([&asked, selected] {
        asked.action = [&asked, selected] { return show_apps(asked, *selected); };
    });
}

} // namespace avwatch
