#include "avwatch/history/usage.h"

#include "avwatch/base/addresses.h"
#include "avwatch/history/schema.h"
#include "avwatch/history/totals.h"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <new>
#include <utility>

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

// The local midnight before it; false: the C library doesn't count so far.
bool day_of(int64_t time_s, tm &local) {
    if (!std::in_range<time_t>(time_s))
        return false;
    const auto time = static_cast<time_t>(time_s);
    if (localtime_r(&time, &local) == nullptr)
        return false;
    local.tm_hour = local.tm_min = local.tm_sec = 0;
    local.tm_isdst = -1;
    return true;
}

int64_t next_local_midnight(int64_t time_s, bool utc) {
    tm local = {};
    if (utc)
        return begin_of(PERIODS[DAYS], time_s) + DAY_S;
    if (!day_of(time_s, local))
        return time_s + DAY_S;
    ++local.tm_mday;
    return std::max<int64_t>(mktime(&local), time_s + 1);
}

int64_t local_midnight(int64_t time_s, bool utc) {
    tm local = {};
    if (utc || !day_of(time_s, local))
        return begin_of(PERIODS[DAYS], time_s);
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

// Those of each query are shown together.
std::vector<std::vector<piece>> queries_of(const usage_query &query, const reaches &reach,
                                           int64_t latest_s) {
    if (query.by == grouping::none)
        return {whole_time(query, reach)};
    std::vector<std::vector<piece>> queries;
    for (const piece &each :
         query.by == grouping::hour ? by_hour(query, reach) : by_day(query, reach, latest_s))
        queries.push_back({each});
    return queries;
}

std::string text_of(sqlite3_value *value) {
    const void *bytes = sqlite3_value_text(value);
    const auto size = static_cast<size_t>(sqlite3_value_bytes(value));
    return bytes != nullptr ? std::string(static_cast<const char *>(bytes), size) : std::string();
}

// SQL's shown_name(name, is_name, names): what `reduced` says.
void shown_name(sqlite3_context *context, int /*count*/, sqlite3_value **values) {
    try {
        const application_name name = {text_of(values[0]), sqlite3_value_int(values[1]) != 0};
        const std::string shown =
            reduced(name, static_cast<names_kept>(sqlite3_value_int(values[2]))).text;
        sqlite3_result_text(context, shown.data(), static_cast<int>(shown.size()),
                            SQLITE_TRANSIENT);
    } catch (const std::bad_alloc &) {
        sqlite3_result_error_nomem(context);
    }
}

std::string sql_of(const piece &wanted) {
    const std::string start =
        wanted.shown_at_s ? std::to_string(*wanted.shown_at_s) : std::string("start");
    std::string sql = "SELECT " + start + " AS shown_at, client, application, verdict";
    for (const char *column : AMOUNT_COLUMNS)
        sql.append(", ").append(column);
    return sql.append(" FROM ")
        .append(PERIODS[wanted.table].table)
        .append(" WHERE start >= " + std::to_string(wanted.from_s))
        .append(" AND start < " + std::to_string(wanted.to_s))
        .append(" AND (?1 = '' OR client = (SELECT id FROM clients WHERE client = ?1))");
}

std::string sql_of(const std::vector<piece> &pieces) {
    std::string all;
    for (const piece &each : pieces)
        all += (all.empty() ? "" : " UNION ALL ") + sql_of(each);
    // Names and the order of columns are those of the rows that are read below.
    std::string sql =
        "SELECT shown_at, (SELECT client FROM clients WHERE id = sums.client) AS whose,"
        " shown_name(ifnull(name, ''), ifnull(is_name, 0), ?3) AS shown, verdict";
    for (const char *column : AMOUNT_COLUMNS)
        sql.append(", CAST(min(total(").append(column).append("), ") +=
            std::to_string(COUNT_MAX) + ".0) AS INTEGER)";
    return sql.append(" FROM (").append(all).append(
        ") AS sums LEFT JOIN applications ON applications.id = application "
        "WHERE lower(?2) IN ('', lower(shown)) OR (shown = '' AND lower(?2) = ?4) "
        "GROUP BY shown_at, sums.client, shown, verdict "
        "ORDER BY shown_at, total(up_bytes) + total(down_bytes) DESC, whose, shown, verdict");
}

// The applications are looked for by what they are shown as, each once.
std::string bars_sql(const piece &wanted) {
    std::string sql = "SELECT shown_at";
    for (const char *column : AMOUNT_COLUMNS)
        sql.append(", CAST(min(total(").append(column).append("), ") +=
            std::to_string(COUNT_MAX) + ".0) AS INTEGER)";
    return sql.append(" FROM (")
        .append(sql_of(wanted))
        .append(") WHERE ?2 = '' OR application IN (SELECT id FROM applications WHERE "
                "lower(shown_name(name, is_name, ?3)) = lower(iif(lower(?2) = ?4, '', ?2))) "
                "GROUP BY shown_at ORDER BY shown_at");
}

client_record client_in(const statement &row) {
    client_record client;
    const std::string key = row.text(0);
    if (canonical_mac(key))
        client.client_mac = key;
    else
        client.addresses.push_back(key);
    client.host_name = row.text(1);
    const std::string addresses = row.text(2);
    for (size_t at = 0; at < addresses.size();) {
        const size_t end = std::min(addresses.find(' ', at), addresses.size());
        client.addresses.push_back(addresses.substr(at, end - at));
        at = end + 1;
    }
    client.last_us = row.count(3) * 1'000'000; // the day: an address is the latest one's
    return client;
}

constexpr char CLIENTS_SQL[] =
    "SELECT client, host_name, addresses, used FROM clients WHERE id != 0";

} // namespace

usage_reach read_usage(database &file, const usage_query &query, const usage_taker &take) {
    file.define("shown_name", 3, shown_name);
    std::string columns = "shown_at, whose, shown, verdict";
    for (const char *column : AMOUNT_COLUMNS)
        columns.append(", ").append(column);
    file.run("PRAGMA temp_store = FILE; CREATE TEMP TABLE usage_rows (" + columns + ")");
    file.run("BEGIN"); // so that all is of one moment
    const reaches reach(file);
    const usage_reach result = {reach.hours_s, reach_of(file, PERIODS[DAYS])};
    const int64_t latest_s = std::max(query.now_s, file.number("SELECT max(start) FROM hours"));
    for (const std::vector<piece> &pieces : queries_of(query, reach, latest_s)) {
        statement rows(file, "INSERT INTO usage_rows " + sql_of(pieces));
        rows.bind(0, std::string_view(query.client)).bind(1, std::string_view(query.application));
        rows.bind(2, static_cast<int64_t>(query.names)).bind(3, std::string_view(UNNAMED));
        rows.run();
    }
    file.run("COMMIT"); // who prints may take long, and wouldn't let the WAL be written back
    statement row(file, "SELECT * FROM usage_rows ORDER BY rowid");
    while (row.step())
        take({row.number(0), row.text(1), row.text(2), static_cast<uint8_t>(row.number(3)),
              amounts_in(row, 4)},
             result);
    return result;
}

std::vector<usage_bar> read_bars(database &file, const usage_query &query) {
    file.define("shown_name", 3, shown_name);
    file.run("BEGIN"); // so that all is of one moment
    const reaches reach(file);
    const int64_t latest_s = std::max(query.now_s, file.number("SELECT max(start) FROM hours"));
    std::vector<usage_bar> bars;
    for (const std::vector<piece> &pieces : queries_of(query, reach, latest_s)) {
        for (const piece &each : pieces) {
            statement row(file, bars_sql(each));
            row.bind(0, std::string_view(query.client));
            row.bind(1, std::string_view(query.application));
            row.bind(2, static_cast<int64_t>(query.names)).bind(3, std::string_view(UNNAMED));
            while (row.step())
                bars.push_back({row.number(0), each.table == DAYS, amounts_in(row, 1)});
        }
    }
    file.run("COMMIT");
    return bars;
}

std::optional<client_record> read_client(database &file, const std::string &key) {
    statement row(file, std::string(CLIENTS_SQL) + " AND client = ?");
    row.bind(0, std::string_view(key));
    return row.step() ? std::optional(client_in(row)) : std::nullopt;
}

std::vector<client_record> read_clients_meant(database &file, const std::string &meant) {
    const std::string text = canonical_address(meant).value_or(meant);
    std::vector<client_record> clients;
    statement row(file, std::string(CLIENTS_SQL) +
                            " AND (client = ?1 OR lower(host_name) = lower(?1) OR "
                            "instr(' ' || addresses || ' ', ' ' || ?1 || ' ') > 0) "
                            "ORDER BY used DESC LIMIT 1024");
    row.bind(0, std::string_view(text));
    while (row.step())
        clients.push_back(client_in(row));
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
