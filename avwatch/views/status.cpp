#include "avwatch/base/failure.h"
#include "avwatch/base/shown_text.h"
#include "avwatch/base/units.h"
#include "avwatch/client/answers.h"
#include "avwatch/history/export_rows.h"
#include "avwatch/history/schema.h"
#include "avwatch/history/usage.h"
#include "avwatch/views/selection.h"
#include "avwatch/views/views.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>
#include <unistd.h>

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

// How large the history is and how far back it reaches; null where there is none.
ordered_json history_state(const std::string &path) {
    ordered_json state = {{"file", path}};
    if (access(path.c_str(), R_OK) != 0) {
        if (errno == ENOENT)
            return nullptr;
        state["error"] = strerror(errno);
        return state;
    }
    try {
        database file(path, database::access::read_only);
        check_history(file);
        state["bytes"] = file.number("PRAGMA page_count") * file.number("PRAGMA page_size");
        const std::vector<int64_t> starts = first_starts(file);
        for (size_t i = 0; i < starts.size(); ++i)
            state[PERIODS[i].table + std::string("_since_us")] =
                std::max<int64_t>(starts[i], 0) * 1'000'000;
        for (const export_counts &each : read_exports(file))
            state["exports"].push_back({{"to", each.target},
                                        {"since_us", each.since_s * 1'000'000},
                                        {"records", each.records},
                                        {"messages", each.messages},
                                        {"failed", each.failed},
                                        {"dropped", each.dropped},
                                        {"other", each.other}});
    } catch (const std::runtime_error &error) {
        state["error"] = error.what();
    }
    return state;
}

void print_exports(const ordered_json &exports, bool utc) {
    for (const ordered_json &each : exports) {
        std::cout << "export: " << shown_text(each["to"].get<std::string>()) << '\n'
                  << "  since: " << time_text(each["since_us"], utc) << '\n';
        for (const char *count : {"records", "messages", "failed", "dropped", "other"})
            std::cout << "  " << count << ": " << each[count] << '\n';
    }
}

void print_history(const ordered_json &state, bool utc) {
    if (state.is_null())
        return;
    std::cout << "history: " << shown_text(state["file"].get<std::string>()) << '\n';
    if (state.contains("error")) {
        std::cout << "  " << shown_text(state["error"].get<std::string>()) << '\n';
        return;
    }
    std::cout << "  size: " << size_text(state["bytes"]) << '\n';
    for (const period &each : PERIODS)
        std::cout << "  " << each.table
                  << " since: " << time_text(state[each.table + std::string("_since_us")], utc)
                  << '\n';
    if (state.contains("exports"))
        print_exports(state["exports"], utc);
}

int show_status(const invocation &asked, bool as_json) {
    const ordered_json history = history_state(read_settings(asked.settings_file).history.file);
    watch_client avcore(asked.watch_socket);
    const greeting_record &greeting = avcore.wait_for_greeting(ANSWER_PATIENCE);
    const counts_record counts = ask_counts(avcore);
    const json gate = ask_gate(avcore);
    if (as_json) {
        ordered_json object = {{"avcore", object_of(greeting)}, {"counts", counts}, {"gate", gate}};
        if (!history.is_null())
            object["history"] = history;
        std::cout << to_line(object) << '\n';
    } else {
        print_status(greeting, counts, gate, asked.utc);
        print_history(history, asked.utc);
    }
    return STATUS_DONE;
}

} // namespace

void add_status(CLI::App &app, invocation &asked) {
    subcommand command(app, "status", "How avcore, its gate and the history are");
    const auto as_json = std::make_shared<bool>(false);
    add_json(command, *as_json);
    command.callback([&asked, as_json] {
        asked.action = [&asked, as_json] { return show_status(asked, *as_json); };
    });
}

} // namespace avwatch
