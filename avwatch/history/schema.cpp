#include "avwatch/history/schema.h"

#include "avwatch/history/amounts.h"
#include "avwatch/history/ledger.h"

#include <iterator>

namespace avwatch {
namespace {

constexpr int64_t APPLICATION_ID = 0x6A6F726E; // as file(1) and others find it

std::string amount_columns(size_t count) {
    std::string columns;
    for (size_t i = 0; i < count; ++i)
        columns += std::string(", ") + AMOUNT_COLUMNS[i] + " INTEGER NOT NULL";
    return columns;
}

// What becomes of the version whose number is the step's place, an empty file being version 0.
std::string first_tables() {
    std::string sql = R"(
        CREATE TABLE clients (id INTEGER PRIMARY KEY, client TEXT NOT NULL UNIQUE,
            host_name TEXT NOT NULL DEFAULT '', addresses TEXT NOT NULL DEFAULT '',
            used INTEGER NOT NULL);
        CREATE TABLE applications (id INTEGER PRIMARY KEY, name TEXT NOT NULL,
            is_name INTEGER NOT NULL, used INTEGER NOT NULL, UNIQUE (name, is_name));
        INSERT INTO clients (id, client, used) VALUES (0, 'other', 9223372036854775807);
        INSERT INTO applications VALUES (0, 'other', 0, 9223372036854775807);
        CREATE TABLE candidates (application TEXT NOT NULL, is_name INTEGER NOT NULL,
            bytes INTEGER NOT NULL, PRIMARY KEY (application, is_name)) WITHOUT ROWID;
        CREATE TABLE state (name TEXT PRIMARY KEY, value NOT NULL) WITHOUT ROWID;
        CREATE TABLE open_flows (id TEXT PRIMARY KEY, client TEXT NOT NULL, has_mac INTEGER NOT NULL,
            application TEXT NOT NULL, is_name INTEGER NOT NULL, verdict INTEGER NOT NULL,
            held INTEGER NOT NULL)";
    sql += amount_columns(FLOW_COUNTS) + ") WITHOUT ROWID;";
    sql += "CREATE TABLE ended_flows (at_ms INTEGER NOT NULL, id INTEGER NOT NULL, "
           "PRIMARY KEY (at_ms, id)) WITHOUT ROWID;";
    sql += "CREATE TABLE application_totals (application TEXT NOT NULL, is_name INTEGER NOT NULL, "
           "verdict INTEGER NOT NULL" +
           amount_columns(AMOUNTS) +
           ", PRIMARY KEY (application, is_name, verdict)) WITHOUT ROWID;";
    sql += "CREATE TABLE client_totals (client TEXT PRIMARY KEY" + amount_columns(AMOUNTS) +
           ") WITHOUT ROWID;";
    for (const period &each : PERIODS)
        sql += std::string("CREATE TABLE ") + each.table +
               " (start INTEGER NOT NULL, client INTEGER NOT NULL, application INTEGER NOT NULL, "
               "verdict INTEGER NOT NULL" +
               amount_columns(AMOUNTS) +
               ", PRIMARY KEY (start, client, application, verdict)) WITHOUT ROWID;";
    return sql;
}

std::string export_tables() {
    return R"(
        CREATE TABLE application_numbers (number INTEGER PRIMARY KEY, name TEXT NOT NULL,
            is_name INTEGER NOT NULL, used INTEGER NOT NULL);
        CREATE TABLE exports (target TEXT PRIMARY KEY, since INTEGER NOT NULL,
            records INTEGER NOT NULL, messages INTEGER NOT NULL, dropped INTEGER NOT NULL,
            failed INTEGER NOT NULL, other INTEGER NOT NULL) WITHOUT ROWID;)";
}

std::string numbered_flows() {
    std::string columns = "client, has_mac, application, is_name, verdict, held";
    for (size_t i = 0; i < FLOW_COUNTS; ++i)
        columns += std::string(", ") + AMOUNT_COLUMNS[i];
    return "ALTER TABLE open_flows RENAME TO flows_by_text;"
           "CREATE TABLE open_flows (id INTEGER PRIMARY KEY, client TEXT NOT NULL, "
           "has_mac INTEGER NOT NULL, application TEXT NOT NULL, is_name INTEGER NOT NULL, "
           "verdict INTEGER NOT NULL, held INTEGER NOT NULL" +
           amount_columns(FLOW_COUNTS) +
           "); INSERT OR REPLACE INTO open_flows SELECT flow_number(id), " + columns +
           " FROM flows_by_text; DROP TABLE flows_by_text;";
}

void define_flow_number(database &file) {
    file.define("flow_number", 1, [](sqlite3_context *out, int, sqlite3_value **values) {
        const auto *id = reinterpret_cast<const char *>(sqlite3_value_text(values[0]));
        sqlite3_result_int64(out, static_cast<int64_t>(flow_number(id != nullptr ? id : "")));
    });
}

constexpr std::string (*STEPS[])() = {first_tables, export_tables, numbered_flows};
constexpr int64_t VERSION = std::size(STEPS);

[[noreturn]] void refuse(database &file, const std::string &why) {
    file.leave_untouched();
    throw foreign_history(file.path() + why);
}

int64_t version_of(database &file) {
    const int64_t version = file.number("PRAGMA user_version");
    const bool is_ours = file.number("PRAGMA application_id") == APPLICATION_ID;
    const bool is_empty = file.number("SELECT count(*) FROM sqlite_schema") == 0;
    if (!is_ours && !(is_empty && version == 0))
        refuse(file, " is a database of another program");
    if (version > VERSION)
        refuse(file, " is of a later version of avwatch, whose number is " +
                         std::to_string(version) + "; this one knows " + std::to_string(VERSION));
    return version;
}

} // namespace

void prepare_history(database &file) {
    const int64_t version = version_of(file);
    if (version == 0)
        file.run("PRAGMA auto_vacuum = INCREMENTAL"); // before the first table, or never
    file.run("PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; PRAGMA cache_size = -4096; "
             "PRAGMA journal_size_limit = 4194304; PRAGMA temp_store = FILE");
    if (version == VERSION)
        return;
    define_flow_number(file);
    transaction all(file);
    for (int64_t i = version_of(file); i < VERSION; ++i)
        file.run(STEPS[i]());
    file.run("PRAGMA application_id = " + std::to_string(APPLICATION_ID) +
             "; PRAGMA user_version = " + std::to_string(VERSION));
    all.commit();
}

void check_history(database &file) {
    if (version_of(file) != VERSION)
        refuse(file, " is of an earlier version; \"avwatch serve\" makes it the present one");
}

int64_t reach_of(database &file, const period &period) {
    statement asked(file, "SELECT value FROM state WHERE name = ?");
    const std::string name = std::string(period.table) + " from";
    asked.bind(0, std::string_view(name));
    return asked.step() ? asked.number(0) : 0;
}

} // namespace avwatch
