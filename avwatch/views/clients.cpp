#include "avwatch/base/failure.h"
#include "avwatch/base/table.h"
#include "avwatch/base/units.h"
#include "avwatch/views/selection.h"
#include "avwatch/views/usage.h"
#include "avwatch/views/views.h"

#include <iostream>
#include <memory>

namespace avwatch {
namespace {

usages look(conversation &talk, const selection &selected) {
    if (selected.names_flows())
        return usages_of_flows(talk, [&](const flow_record &flow) {
            return talk.clients.key_of(flow.client_mac, flow.client);
        });
    return usages_of_clients(talk.avcore, talk.clients);
}

std::string addresses_text(const client_record &said) {
    if (said.addresses.size() < 2)
        return said.addresses.empty() ? "" : said.addresses.front();
    return said.addresses.front() + " +" + std::to_string(said.addresses.size() - 1);
}

void print_table(const conversation &talk, const usages &all, const std::vector<std::string> &keys,
                 bool utc) {
    table lines({{"CLIENT"},
                 {"MAC"},
                 {"ADDRESS"},
                 {"INTERFACE"},
                 {"UTP", true},
                 {"FLOWS", true},
                 {"UP", true},
                 {"DOWN", true},
                 {"UP NOW", true},
                 {"DOWN NOW", true},
                 {"DROPPED", true},
                 {"LAST SEEN"}});
    for (const std::string &key : keys) {
        const known_client *known = talk.clients.with_key(key);
        const client_record said = known != nullptr ? known->said : client_record();
        const usage &used = all.at(key);
        lines.add({talk.clients.name_of(key), said.client_mac.empty() ? key : said.client_mac,
                   addresses_text(said), said.interface, std::to_string(said.utp),
                   std::to_string(used.flows), size_text(used.up.bytes), size_text(used.down.bytes),
                   rate_text(used.up_rate), rate_text(used.down_rate),
                   std::to_string(used.dropped.denied + used.dropped.limited),
                   time_text(used.last_us, utc)});
        lines.print_many(std::cout);
    }
    lines.print(std::cout);
}

void print_objects(const conversation &talk, const usages &all,
                   const std::vector<std::string> &keys) {
    for (const std::string &key : keys) {
        const known_client *known = talk.clients.with_key(key);
        nlohmann::ordered_json object = {{"client", key}};
        if (known != nullptr) {
            if (!known->alias.empty())
                object["alias"] = known->alias;
            object.update(object_of(known->said));
        }
        put_usage(object, all.at(key));
        std::cout << to_line(object) << '\n';
    }
}

int show_clients(const invocation &asked, const selection &selected) {
    conversation talk(asked, selected);
    const usages all = look(talk, selected);
    std::vector<std::string> keys = by_bytes(all);
    if (!talk.client_key.empty())
        std::erase_if(keys, [&](const std::string &key) { return key != talk.client_key; });
    if (selected.as_json)
        print_objects(talk, all, keys);
    else
        print_table(talk, all, keys, asked.utc);
    say_what_was_passed_over(talk.avcore);
    return STATUS_DONE;
}

} // namespace

void add_clients(CLI::App &app, invocation &asked) {
    subcommand command(
        app, "clients", "Who is there, and what each has used",
        "Sums of the flows that avcore has in its table, those of long ago excepted, by client;\n"
        "with --app, --name or --verdict of such flows alone. A client is one by its MAC address,\n"
        "with all of its IP addresses. It is called by its alias, or in quotes by the host name\n"
        "that it said, which may be anybody's. UP NOW and DOWN NOW come of a second look, two\n"
        "seconds later.");
    const auto selected = std::make_shared<selection>();
    add_selection(command, *selected);
    add_verdict(command, *selected);
    command.callback([&asked, selected] {
        asked.action = [&asked, selected] { return show_clients(asked, *selected); };
    });
}

} // namespace avwatch
