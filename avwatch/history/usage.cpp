#include "avwatch/history/usage.h"

#include "avwatch/base/addresses.h"
#include "avwatch/history/schema.h"
#include "avwatch/history/totals.h"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <map>
#include <tuple>

namespace avwatch {
namespace {

constexpr int64_t FOREVER_S = INT64_MAX;

// Rows of one table, of some time, that are shown at one start.
struct piece {
    size_t table;
    int64_t from_s, to_s;              // to before it
    std::optional<int64_t> shown_at_s; // else each at its own start
};

int64_t round_up(const period &period, int64_t time_s) {
    return begin_of(period, time_s + period.length_s - 1);
}

// From where on the hours and the minutes are whole, counted in the next longer period.
struct reaches {
    int64_t minutes_s, hours_s;

    explicit reaches(database &file)
        : minutes_s(round_up(PERIODS[HOURS], reach_of(file, PERIODS[MINUTES]))),
          hours_s(round_up(PERIODS[DAYS], reach_of(file, PERIODS[HOURS]))) {}
};

int64_t next_local_midnight(int64_t time_s, bool utc) {
    const time_t time = time_s;
    tm local = {};
    if (utc)
        return begin_of(PERIODS[DAYS], time_s) + DAY_S;
    if (localtime_r(&time, &local) == nullptr)
        return time_s + DAY_S;
    local.tm_hour = local.tm_min = local.tm_sec = 0;
    ++local.tm_mday;
    local.tm_isdst = -1;
    return std::max<int64_t>(mktime(&local), time_s + 1);
}

int64_t local_midnight(int64_t time_s, bool utc) {
    const time_t time = time_s;
    tm local = {};
    if (utc || localtime_r(&time, &local) == nullptr)
        return begin_of(PERIODS[DAYS], time_s);
    local.tm_hour = local.tm_min = local.tm_sec = 0;
    local.tm_isdst = -1;
    return mktime(&local);
}

// Days before the hours reach, hours from there on, and where those begin too early by minutes.
std::vector<piece> whole_time(const usage_query &query, const reaches &reach) {
    const int64_t since_s = query.since_s;
    std::vector<piece> pieces;
    if (since_s < reach.hours_s)
        pieces.push_back({DAYS, begin_of(PERIODS[DAYS], since_s), reach.hours_s, since_s});
    int64_t hours_s = std::max(begin_of(PERIODS[HOURS], since_s), reach.hours_s);
    if (since_s > hours_s && since_s >= reach.minutes_s) {
        hours_s += HOUR_S;
        pieces.push_back({MINUTES, begin_of(PERIODS[MINUTES], since_s), hours_s, since_s});
    }
    pieces.push_back({HOURS, hours_s, FOREVER_S, since_s});
    return pieces;
}

std::vector<piece> by_hour(const usage_query &query, const reaches &reach) {
    return {{HOURS, std::max(begin_of(PERIODS[HOURS], query.since_s), reach.hours_s), FOREVER_S,
             std::nullopt}};
}

std::vector<piece> by_day(const usage_query &query, const reaches &reach, int64_t latest_s) {
    std::vector<piece> pieces;
    if (query.since_s < reach.hours_s)
        pieces.push_back(
            {DAYS, begin_of(PERIODS[DAYS], query.since_s), reach.hours_s, std::nullopt});
    int64_t day_s = local_midnight(std::max(query.since_s, reach.hours_s), query.utc);
    while (day_s <= latest_s) {
        const int64_t next_s = next_local_midnight(day_s, query.utc);
        const int64_t from_s = std::max(day_s, reach.hours_s);
        pieces.push_back({HOURS, from_s, next_s, from_s});
        day_s = next_s;
    }
    return pieces;
}

using group_key = std::tuple<int64_t, std::string, std::string, uint8_t>;
using groups = std::map<group_key, amounts>;

bool is_same_word(std::string_view one, std::string_view other) {
    const auto lower = [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    };
    return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                      [&](char a, char b) { return lower(a) == lower(b); });
}

void add_piece(database &file, const piece &wanted, const usage_query &query, groups &found) {
    std::string columns;
    for (const char *column : AMOUNT_COLUMNS)
        columns += std::string(", CAST(min(total(") + column + "), " + std::to_string(COUNT_MAX) +
                   ".0) AS INTEGER)";
    statement row(file, "SELECT start, (SELECT client FROM clients WHERE id = sums.client), "
                        "ifnull(name, ''), ifnull(is_name, 0), verdict" +
                            columns + " FROM " + PERIODS[wanted.table].table +
                            " AS sums LEFT JOIN applications ON applications.id = application "
                            "WHERE start >= ?1 AND start < ?2 AND (?3 = '' OR sums.client = "
                            "(SELECT id FROM clients WHERE client = ?3)) GROUP BY " +
                            (wanted.shown_at_s ? "" : "start, ") +
                            "sums.client, application, verdict");
    row.bind(0, wanted.from_s).bind(1, wanted.to_s).bind(2, std::string_view(query.client));
    while (row.step()) {
        const application_name name = reduced({row.text(2), row.number(3) != 0}, query.names);
        if (!query.application.empty() && !is_same_word(name.text, query.application))
            continue;
        add(found[{wanted.shown_at_s.value_or(row.number(0)), row.text(1), name.text,
                   static_cast<uint8_t>(row.number(4))}],
            amounts_in(row, 5));
    }
}

uint64_t bytes_of(const usage_row &row) {
    return row.values[UP_BYTES] + row.values[DOWN_BYTES];
}

} // namespace

usage_result read_usage(database &file, const usage_query &query) {
    file.run("BEGIN"); // so that all pieces are of one moment
    const reaches reach(file);
    const int64_t latest_s = std::max(query.now_s, file.number("SELECT max(start) FROM hours"));
    const std::vector<piece> pieces = query.by == grouping::none   ? whole_time(query, reach)
                                      : query.by == grouping::hour ? by_hour(query, reach)
                                                                   : by_day(query, reach, latest_s);
    groups found;
    for (const piece &each : pieces)
        add_piece(file, each, query, found);
    usage_result result;
    result.hours_from_s = reach.hours_s;
    result.days_from_s = reach_of(file, PERIODS[DAYS]);
    file.run("COMMIT");
    for (auto &[key, values] : found) {
        const auto &[start_s, client, application, verdict] = key;
        result.rows.push_back({start_s, client, application, verdict, values});
    }
    std::stable_sort(result.rows.begin(), result.rows.end(),
                     [](const usage_row &one, const usage_row &other) {
                         return one.start_s != other.start_s ? one.start_s < other.start_s
                                                             : bytes_of(one) > bytes_of(other);
                     });
    return result;
}

std::vector<client_record> read_clients(database &file) {
    std::vector<client_record> clients;
    statement row(file, "SELECT client, host_name, addresses, used FROM clients WHERE id != 0");
    while (row.step()) {
        client_record client;
        const std::string key = row.text(0);
        if (canonical_mac(key))
            client.client_mac = key;
        else
            client.addresses.push_back(key);
        client.host_name = row.text(1);
        client.last_us = row.count(3) * 1'000'000; // the day: an address is the latest one's
        const std::string addresses = row.text(2);
        for (size_t at = 0; at < addresses.size();) {
            const size_t end = std::min(addresses.find(' ', at), addresses.size());
            client.addresses.push_back(addresses.substr(at, end - at));
            at = end + 1;
        }
        clients.push_back(std::move(client));
    }
    return clients;
}

std::vector<int64_t> first_starts(database &file) {
    std::vector<int64_t> starts;
    for (const period &each : PERIODS)
        starts.push_back(file.number(std::string("SELECT min(start) FROM ") + each.table));
    return starts;
}

std::optional<int64_t> duration_s(std::string_view text) {
    constexpr int64_t hundred_years_s = 100 * YEAR_S;
    constexpr std::pair<char, int64_t> units[] = {
        {'m', 60}, {'h', HOUR_S}, {'d', DAY_S}, {'w', 7 * DAY_S}};
    uint32_t count = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
    if (error != std::errc() || end + 1 != text.data() + text.size())
        return std::nullopt;
    for (const auto &[letter, unit_s] : units) {
        if (*end == letter && count <= hundred_years_s / unit_s)
            return count * unit_s;
    }
    return std::nullopt;
}

} // namespace avwatch
