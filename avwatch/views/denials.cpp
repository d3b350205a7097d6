#include "avwatch/base/complain.h"
#include "avwatch/base/failure.h"
#include "avwatch/base/table.h"
#include "avwatch/base/units.h"
#include "avwatch/present/flow_cells.h"
#include "avwatch/views/ranked_rows.h"
#include "avwatch/views/selection.h"
#include "avwatch/views/views.h"
#include "shared/counted.h"

#include <iostream>
#include <memory>

namespace avwatch {
namespace {

constexpr size_t LEAST_WIDTH = 12;

table denial_table() {
    return table({{"WHEN", false, sizeof "2026-11-26 10:32:05" - 1},
                  {"CLIENT", false, LEAST_WIDTH},
                  {"ADDRESS", false, LEAST_WIDTH},
                  {"SERVER", false, LEAST_WIDTH},
                  {"PROTOCOL"},
                  {"APPLICATION", false, LEAST_WIDTH},
                  {"DROPPED", true},
                  {"WHY"}});
}

std::vector<std::string> cells_of(const flow_record &flow, uint64_t us,
                                  const known_clients &clients, bool utc) {
    return {time_text(us, utc),
            clients.name_of(clients.key_of(flow.client_mac, flow.client)),
            endpoint_text(flow.client, flow.client_port),
            endpoint_text(flow.server, flow.server_port),
            flow.protocol,
            flow.application,
            std::to_string(flow.dropped.denied),
            reason_text(flow.why)};
}

int list_denials(const invocation &asked, selection selected) {
    selected.verdict = DENIED;
    conversation talk(asked, selected);
    ranked_rows rows;
    talk.ask_flows([&](const flow_record &flow) {
        rows.add(flow.dropped.denied, selected.as_json
                                          ? std::vector{to_line(object_of(flow))}
                                          : cells_of(flow, flow.last_us, talk.clients, asked.utc));
    });
    table lines = denial_table();
    if (selected.as_json)
        rows.print_lines();
    else
        rows.print(lines);
    say_what_was_passed_over(talk.avcore);
    return STATUS_DONE;
}

int follow_denials(const invocation &asked, const selection &selected) {
    conversation talk(asked, selected);
    const uint32_t id = talk.avcore.follow({.flows = false, .events = true, .filter = talk.filter});
    table lines = denial_table();
    if (!selected.as_json)
        lines.print(std::cout);
    while (std::cout.flush()) {
        message next = talk.avcore.wait();
        if (next.id != id)
            continue;
        if (const auto *lost = std::get_if<lost_events>(&next.what))
            complain(counted(lost->count, "event was", "events were") +
                     " lost, for they came faster than they were read");
        if (const auto *error = std::get_if<answer_error>(&next.what))
            throw refused("avcore doesn't tell: " + error->text);
        auto *event = std::get_if<event_record>(&next.what);
        if (event == nullptr || event->what != "denied" || !event->flow)
            continue;
        event->flow = talk.shown(std::move(*event->flow));
        if (!talk.is_wanted(*event->flow))
            continue;
        if (selected.as_json)
            std::cout << to_line(object_of(*event)) << '\n';
        else
            lines.add(cells_of(*event->flow, event->us, talk.clients, asked.utc));
        if (!selected.as_json)
            lines.print(std::cout);
    }
    return STATUS_DONE; // that nothing can be printed is said where the program ends
}

} // namespace

void add_denials(CLI::App &app, invocation &asked) {
    subcommand command(
        app, "denials", "What is denied, to whom and why",
        "The flows in avcore's table whose verdict is a denial, those first of which\n"
        "most packets were dropped. With --follow instead each denial when it is\n"
        "made, until you interrupt it.");
    struct request {
        selection selected;
        bool follow = false;
    };
    const auto wanted = std::make_shared<request>();
    add_selection(command, wanted->selected);
    command.add_flag("--follow", wanted->follow, "Each denial when it is made");
    command.callback([&asked, wanted] {
        asked.action = [&asked, wanted] {
            return wanted->follow ? follow_denials(asked, wanted->selected)
                                  : list_denials(asked, wanted->selected);
        };
    });
}

} // namespace avwatch
