#include "avwatch/history/usage.h"
#include "avwatch/base/complain.h"
#include "avwatch/base/failure.h"
#include "avwatch/base/shown_text.h"
#include "avwatch/base/table.h"
#include "avwatch/base/units.h"
#include "avwatch/history/ledger.h"
#include "avwatch/history/schema.h"
#include "avwatch/past/history_file.h"
#include "avwatch/past/past.h"

#include <algorithm>
#include <ctime>
#include <iostream>
#include <memory>
#include <unordered_map>

namespace avwatch {
namespace {

struct usage_request {
    std::string history;
    std::string client;
    std::string application;
    std::string by;
    std::string since = "7d";
    bool as_json = false;
    bool as_csv = false;
};

std::string verdict_text(uint8_t verdict) {
    return std::string(verdict < VERDICTS ? VERDICT_WORDS[verdict] : VERDICT_WORDS[NO_VERDICT]);
}

uint64_t microseconds(int64_t seconds) {
    return static_cast<uint64_t>(std::max<int64_t>(seconds, 0)) * 1'000'000;
}

// What clients are called. A few are kept: rows of the same client mostly come together.
class client_names {
public:
    client_names(database &file, client_aliases aliases)
        : file_(file), aliases_(std::move(aliases)) {}

    const std::string &of(const std::string &key) {
        if (names_.size() >= KEPT)
            names_.clear();
        const auto [at, is_new] = names_.try_emplace(key);
        if (is_new) {
            std::vector<client_record> said;
            if (std::optional<client_record> client = read_client(file_, key))
                said.push_back(std::move(*client));
            at->second = known_clients(aliases_, std::move(said)).name_of(key);
        }
        return at->second;
    }

private:
    static constexpr size_t KEPT = 1'024;

    database &file_;
    const client_aliases aliases_;
    std::unordered_map<std::string, std::string> names_;
};

// The rows' time, as its grouping shows it.
std::string when_text(const usage_row &row, const usage_query &query, const usage_reach &reach) {
    const bool is_utc_day = query.by == grouping::day && row.start_s < reach.hours_from_s;
    std::string text = time_text(microseconds(row.start_s), query.utc || is_utc_day);
    if (query.by != grouping::day)
        return text;
    return text.substr(0, text.find(' ')) + (is_utc_day && !query.utc ? " UTC" : "");
}

usage_reach print_table(database &file, const usage_query &query, client_names &names) {
    std::vector<column> columns = {{"CLIENT"},       {"APPLICATION"},  {"VERDICT"},
                                   {"UP", true},     {"DOWN", true},   {"FLOWS", true},
                                   {"DENIED", true}, {"DROPPED", true}};
    if (query.by != grouping::none)
        columns.insert(columns.begin(), {"FROM"});
    table lines(columns);
    const auto add = [&](const usage_row &row, const usage_reach &reach) {
        const std::string &name = names.of(row.client);
        std::vector<std::string> cells = {
            name.empty() ? row.client : name,
            row.application.empty() ? UNNAMED : row.application,
            verdict_text(row.verdict),
            size_text(row.values[UP_BYTES]),
            size_text(row.values[DOWN_BYTES]),
            std::to_string(row.values[FLOWS]),
            std::to_string(row.values[DENIALS]),
            std::to_string(row.values[DENIED_PACKETS] + row.values[LIMITED_PACKETS])};
        if (query.by != grouping::none)
            cells.insert(cells.begin(), when_text(row, query, reach));
        lines.add(std::move(cells));
        lines.print_many(std::cout);
    };
    const usage_reach reach = read_usage(file, query, add);
    lines.print(std::cout);
    return reach;
}

usage_reach print_objects(database &file, const usage_query &query, client_names &names) {
    return read_usage(file, query, [&](const usage_row &row, const usage_reach & /*reach*/) {
        const amounts &values = row.values;
        nlohmann::ordered_json object = {{"from_us", microseconds(row.start_s)},
                                         {"client", row.client}};
        if (const std::string &name = names.of(row.client); !name.empty())
            object["name"] = name;
        object["application"] = row.application;
        object["verdict"] = verdict_text(row.verdict);
        object["up"] = {values[UP_PACKETS], values[UP_BYTES]};
        object["down"] = {values[DOWN_PACKETS], values[DOWN_BYTES]};
        object["dropped"] = {values[DENIED_PACKETS], values[LIMITED_PACKETS]};
        object["flows"] = values[FLOWS];
        object["denials"] = values[DENIALS];
        std::cout << to_line(object) << '\n';
    });
}

// A text of CSV (RFC 4180). Names are anybody's, and a spreadsheet takes some for formulas.
std::string quoted(const std::string &text) {
    constexpr std::string_view formulas = "=+-@\t\r";
    std::string result = "\"";
    if (!text.empty() && formulas.find(text.front()) != std::string_view::npos)
        result += '\'';
    for (const char c : shown_text(text)) {
        if (c == '"')
            result += '"';
        result += c;
    }
    return result + '"';
}

usage_reach print_csv(database &file, const usage_query &query, client_names &names) {
    std::cout << "from,client,name,application,verdict";
    for (const char *column : AMOUNT_COLUMNS)
        std::cout << ',' << column;
    std::cout << '\n';
    return read_usage(file, query, [&](const usage_row &row, const usage_reach &reach) {
        std::cout << when_text(row, query, reach) << ',' << quoted(row.client) << ','
                  << quoted(names.of(row.client)) << ',' << quoted(row.application) << ','
                  << verdict_text(row.verdict);
        for (const uint64_t value : row.values)
            std::cout << ',' << value;
        std::cout << '\n';
    });
}

grouping grouping_of(const std::string &word) {
    if (word.empty())
        return grouping::none;
    return word == "hour" ? grouping::hour : grouping::day;
}

void say_what_is_missing(const usage_query &query, const usage_reach &reach) {
    if (query.by == grouping::hour && query.since_s < reach.hours_from_s)
        complain("hours reach back to " + time_text(microseconds(reach.hours_from_s), query.utc) +
                 " only, --by day further");
    else if (query.since_s < reach.days_from_s)
        complain("the history reaches back to " +
                 time_text(microseconds(reach.days_from_s), query.utc) + " only");
}

std::string what_is_wrong_with(const std::string &since) {
    return duration_s(since) ? ""
                             : "a number of minutes, hours, days or weeks, as in 90m, 24h, 7d or "
                               "2w, and not \"" +
                                   since + '"';
}

int show_usage(const invocation &asked, const usage_request &wanted) {
    const settings read = read_settings(asked.settings_file);
    database file = open_history(wanted.history.empty() ? read.history.file : wanted.history,
                                 database::access::read_only);
    usage_query query;
    query.now_s = time(nullptr);
    query.since_s = std::max<int64_t>(query.now_s - duration_s(wanted.since).value_or(0), 0);
    query.by = grouping_of(wanted.by);
    query.utc = asked.utc;
    query.names = read.history.names;
    query.application = wanted.application;
    if (!wanted.client.empty())
        query.client = find_client(file, read.aliases, wanted.client);
    client_names names(file, read.aliases);
    const auto print = wanted.as_json ? print_objects : wanted.as_csv ? print_csv : print_table;
    say_what_is_missing(query, print(file, query, names));
    return STATUS_DONE;
}

} // namespace

void add_usage(CLI::App &app, invocation &asked) {
    subcommand command(app, "usage", "Who used what, from the history",
                       "What \"avwatch serve\" has kept. Hours and days are the local zone's or, "
                       "with --utc, UTC's.\n"
                       "Rows are kept by UTC's hours: of a zone that is half an hour off, hours "
                       "begin at the half.\n"
                       "Where only days are left, they are UTC's.");
    const auto wanted = std::make_shared<usage_request>();
    command.add_option("--client", wanted->client, "A MAC or IP address, an alias, a host name");
    command.add_option("--app", wanted->application, "An application's whole name, in any case");
    command.add_option("--by", wanted->by, "A row for each hour or day",
                       {.one_of = {"hour", "day"}});
    command.add_option("--since", wanted->since, "How far back: 90m, 24h, 7d, 2w",
                       {.shows_default = true, .what_is_wrong_with = what_is_wrong_with});
    CLI::Option *json = command.add_flag("--json", wanted->as_json, "A JSON object a line");
    command.add_flag("--csv", wanted->as_csv, "Comma-separated values", json);
    add_history(command, wanted->history);
    command.callback([&asked, wanted] {
        asked.action = [&asked, wanted] { return show_usage(asked, *wanted); };
    });
}

} // namespace avwatch
