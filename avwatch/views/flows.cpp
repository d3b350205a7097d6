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
#include <optional>
#include <unordered_map>

namespace avwatch {
namespace {

// Where lines come one by one: what most flows take.
constexpr size_t FOLLOWED_NAME = 12;
constexpr size_t FOLLOWED_ENDPOINT = 21;
constexpr size_t FOLLOWED_APPLICATION = 24;

// The flows as rows, of a table or of one cell each, a line of JSON.
class flow_lines {
public:
    flow_lines(const known_clients &clients, bool as_json, bool utc, bool one_by_one)
        : clients_(clients), as_json_(as_json), utc_(utc), table_(columns(one_by_one)) {}

    std::vector<std::string> row_of(const flow_record &flow) const {
        const std::string name = clients_.name_of(clients_.key_of(flow.client_mac, flow.client));
        if (as_json_) {
            nlohmann::ordered_json object = object_of(flow);
            if (!name.empty())
                object["client_name"] = name;
            return {to_line(object)};
        }
        return {name,
                endpoint_text(flow.client, flow.client_port),
                endpoint_text(flow.server, flow.server_port),
                flow.protocol,
                flow.application,
                verdict_text(flow),
                size_text(flow.up.bytes),
                size_text(flow.down.bytes),
                std::to_string(flow.dropped.denied + flow.dropped.limited),
                time_text(flow.last_us, utc_),
                flow.ended.empty() ? flow.gate : flow.ended};
    }

    void print(ranked_rows &rows) {
        if (as_json_)
            rows.print_lines();
        else
            rows.print(table_);
    }

    // One by one, the first below the heading.
    void print(const flow_record &flow) {
        if (as_json_)
            std::cout << row_of(flow).front() << '\n';
        else
            table_.add(row_of(flow));
        print_heading();
    }
    void print_heading() {
        if (!as_json_)
            table_.print(std::cout);
    }

private:
    static std::vector<column> columns(bool one_by_one) {
        const auto least = [&](size_t width) { return one_by_one ? width : 0; };
        return {{"CLIENT", false, least(FOLLOWED_NAME)},
                {"ADDRESS", false, least(FOLLOWED_ENDPOINT)},
                {"SERVER", false, least(FOLLOWED_ENDPOINT)},
                {"PROTOCOL"},
                {"APPLICATION", false, least(FOLLOWED_APPLICATION)},
                {"VERDICT", false, least(sizeof "white list" - 1)},
                {"UP", true, least(sizeof "99.9 kB" - 1)},
                {"DOWN", true, least(sizeof "99.9 kB" - 1)},
                {"DROPPED", true},
                {"LAST SEEN", false, least(sizeof "2026-11-26 10:32:05" - 1)},
                {"STATE"}};
    }

    const known_clients &clients_;
    bool as_json_;
    bool utc_;
    table table_;
};

int list_flows(const invocation &asked, const selection &selected) {
    conversation talk(asked, selected);
    flow_lines lines(talk.clients, selected.as_json, asked.utc, false);
    ranked_rows rows;
    talk.ask_flows([&](const flow_record &flow) {
        rows.add(flow.up.bytes + flow.down.bytes, lines.row_of(flow));
    });
    lines.print(rows);
    say_what_was_passed_over(talk.avcore);
    return STATUS_DONE;
}

// What the present flows are, for a message of counts alone is a line with all of its flow, too.
class followed_flows {
public:
    void keep(const flow_record &flow) {
        if (!flow.ended.empty())
            flows_.erase(flow.id);
        else if (flows_.size() < ANSWERS_MAX || flows_.contains(flow.id))
            flows_[flow.id] = flow;
    }

    bool has(const std::string &id) const { return flows_.contains(id); }

    // Nothing where the flow isn't known.
    std::optional<flow_record> count(const count_record &count) {
        const auto found = flows_.find(count.id);
        if (found == flows_.end())
            return std::nullopt;
        static_cast<count_record &>(found->second) = count;
        flow_record flow = found->second;
        keep(flow);
        return flow;
    }

private:
    std::unordered_map<std::string, flow_record> flows_;
};

int follow_flows(const invocation &asked, const selection &selected) {
    conversation talk(asked, selected);
    const uint32_t id = talk.avcore.follow({.filter = talk.filter});
    flow_lines lines(talk.clients, selected.as_json, asked.utc, true);
    followed_flows flows;
    lines.print_heading();
    while (std::cout.flush()) {
        message next = talk.avcore.wait();
        if (next.id != id)
            continue;
        if (auto *told = std::get_if<flow_record>(&next.what)) {
            const flow_record flow = talk.shown(std::move(*told));
            if (!talk.is_wanted(flow) && !flows.has(flow.id))
                continue;
            lines.print(flow);
            flows.keep(flow);
        } else if (const auto *count = std::get_if<count_record>(&next.what)) {
            const std::optional<flow_record> flow = flows.count(*count);
            if (flow && (selected.as_json || !flow->ended.empty()))
                lines.print(*flow);
        } else if (const auto *sum = std::get_if<sum_record>(&next.what)) {
            complain("flows that ended weren't read in time: " +
                     size_text(sum->up.bytes + sum->down.bytes) + " and " +
                     counted(sum->flows, "flow", "flows") + " are missing here");
        } else if (const auto *error = std::get_if<answer_error>(&next.what)) {
            throw refused("avcore doesn't tell: " + error->text);
        }
    }
    return STATUS_DONE; // that nothing can be printed is said where the program ends
}

} // namespace

void add_flows(CLI::App &app, invocation &asked) {
    subcommand command(
        app, "flows", "The flows in avcore's table",
        "STATE is what the gate does with a flow now, or how it ended. With --follow those that\n"
        "there are and then each that begins, changes or ends, until you interrupt it; with\n"
        "--json also those that only were counted.");
    struct request {
        selection selected;
        bool follow = false;
    };
    const auto wanted = std::make_shared<request>();
    add_selection(command, wanted->selected);
    add_verdict(command, wanted->selected);
    command.add_flag("--follow", wanted->follow, "And those that come");
    command.callback([&asked, wanted] {
        asked.action = [&asked, wanted] {
            return wanted->follow ? follow_flows(asked, wanted->selected)
                                  : list_flows(asked, wanted->selected);
        };
    });
}

} // namespace avwatch
