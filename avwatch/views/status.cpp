#include "avwatch/base/failure.h"
#include "avwatch/base/shown_text.h"
#include "avwatch/base/units.h"
#include "avwatch/client/answers.h"
#include "avwatch/views/selection.h"
#include "avwatch/views/views.h"

#include <iostream>
#include <memory>

namespace avwatch {
namespace {

using nlohmann::json;
using nlohmann::ordered_json;

// A member a line, those of a value with members below it.
void print_members(const json &object, const std::string &indentation) {
    for (const auto &[key, value] : object.items()) {
        std::cout << indentation << shown_text(key) << ':';
        if (value.is_object() || (value.is_array() && !value.empty() && value[0].is_structured())) {
            std::cout << '\n';
            print_members(value, indentation + "  ");
        } else {
            const std::string text = value.is_string() ? value.get<std::string>() : to_line(value);
            std::cout << ' ' << shown_text(text) << '\n';
        }
    }
}

void print_status(const greeting_record &greeting, const counts_record &counts, const json &gate,
                  bool utc) {
    std::cout << "avcore runs since: " << time_text(greeting.started_us, utc) << '\n'
              << "counts: "
              << (greeting.counts == "wire" ? "of all packets" : "of the frames that avcore saw")
              << '\n';
    print_members(counts, "  ");
    if (!gate.is_object()) {
        std::cout << "gate: none\n";
        return;
    }
    std::cout << "gate:\n";
    print_members(gate, "  ");
}

int show_status(const invocation &asked, bool as_json) {
    read_settings(asked.settings_file); // which is to be right, too
    watch_client avcore(asked.watch_socket);
    const greeting_record &greeting = avcore.wait_for_greeting(ANSWER_PATIENCE);
    const counts_record counts = ask_counts(avcore);
    const json gate = ask_gate(avcore);
    if (as_json) {
        ordered_json object = {{"avcore", object_of(greeting)}, {"counts", counts}, {"gate", gate}};
        std::cout << to_line(object) << '\n';
    } else {
        print_status(greeting, counts, gate, asked.utc);
    }
    return STATUS_DONE;
}

} // namespace

void add_status(CLI::App &app, invocation &asked) {
    CLI::App *subcommand = app.add_subcommand("status", "How avcore and its gate are");
    const auto as_json = std::make_shared<bool>(false);
    add_json(*subcommand, *as_json);
    subcommand->callback([&asked, as_json] {
        asked.action = [&asked, as_json] { return show_status(asked, *as_json); };
    });
}

} // namespace avwatch
