#include "avwatch/history/store.h"

#include "avwatch/base/failure.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>

namespace avwatch {
namespace {

constexpr size_t NAMES_AT_HAND = 4'096;
constexpr int PATIENCE_MS = 100; // the loop has others to serve
constexpr uint64_t MEGABYTE = 1'000'000;
constexpr int64_t PAGES_AT_ONCE = 512;
constexpr int64_t FREE_PAGES_MIN = 1'024;
// So that two days of nothing but full hours have room within the limit, and one in memory.
constexpr uint64_t HOUR_PAIRS_MAX = 65'536;
constexpr uint64_t BYTES_PER_HOUR_PAIR = 12'000;

constexpr char EPOCH[] = "epoch";
constexpr char UNCOUNTED[] = "uncounted";
constexpr char HEARD[] = "heard";

// Summed up without an overflow, which would be an error.
std::string summed_amounts() {
    std::string sql;
    for (const char *column : AMOUNT_COLUMNS)
        sql += std::string(", CAST(min(total(") + column + "), " + std::to_string(COUNT_MAX) +
               ".0) AS INTEGER)";
    return sql;
}

int64_t latest_start(database &file) {
    return file.number("SELECT max((SELECT ifnull(max(start), 0) FROM minutes), "
                       "(SELECT ifnull(max(start), 0) FROM hours), "
                       "(SELECT ifnull(max(start), 0) FROM days))");
}

// Another one after others have written.
int64_t data_version_of(database &file) {
    return file.number("PRAGMA data_version");
}

uint64_t hour_pairs_max(const history_settings &settings) {
    return std::min(HOUR_PAIRS_MAX, settings.limit_mb * MEGABYTE / BYTES_PER_HOUR_PAIR);
}

uint64_t pair_key(int64_t client, int64_t application) {
    return static_cast<uint64_t>(client) << 32 | static_cast<uint64_t>(application);
}

database prepared(const std::string &path) {
    database file(path, database::access::create, PATIENCE_MS);
    prepare_history(file);
    return file;
}

} // namespace

unique_fd lock_history(const std::string &file) {
    const std::string path = file + "-lock";
    std::error_code ignored; // opening says it
    std::filesystem::create_directories(std::filesystem::path(file).parent_path(), ignored);
    unique_fd lock(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640));
    if (!lock.valid())
        throw refused(path + ": " + strerror(errno));
    if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0)
        throw refused(errno == EWOULDBLOCK ? "another \"avwatch serve\" writes " + file
                                           : path + ": " + strerror(errno));
    return lock;
}

store::named_rows::named_rows(database &file, const std::string &table, const std::string &columns,
                              const std::string &marks)
    : find(file, "SELECT id, used FROM " + table + " WHERE (" + columns + ") = (" + marks + ")"),
      insert(file, "INSERT INTO " + table + " (used, " + columns + ") VALUES (?, " + marks +
                       ") RETURNING id"),
      use(file, "UPDATE " + table + " SET used = ? WHERE id = ?") {}

store::store(const history_settings &settings)
    : settings_(settings),
      file_(prepared(settings.file)),
      timeline_(latest_start(file_)),
      data_version_(data_version_of(file_)),
      clients_(file_, "clients", "client", "?"),
      applications_(file_, "applications", "name, is_name", "?, ?"),
      write_flow_(file_, "INSERT OR REPLACE INTO open_flows VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, "
                         "?, ?, ?)"),
      remove_flow_(file_, "DELETE FROM open_flows WHERE id = ?"),
      write_ended_(file_, "INSERT OR IGNORE INTO ended_flows VALUES (?, ?)"),
      set_state_(file_, "INSERT OR REPLACE INTO state VALUES (?, ?)") {
    for (const period &each : PERIODS)
        add_.emplace_back(
            file_, upsert_sql(each.table, "start, client, application, verdict", conflict::adds));
    totals_.load(file_);
}

void store::restore(ledger &flows, int64_t now_ms) {
    statement row(file_, "SELECT * FROM open_flows");
    while (row.step()) {
        sum_key key = {
            row.text(1), {row.text(3), row.number(4) != 0}, static_cast<uint8_t>(row.number(5))};
        open_flow flow;
        flow.has_mac = row.number(2) != 0;
        flow.held = row.number(6) != 0;
        for (size_t i = 0; i < FLOW_COUNTS; ++i)
            flow.told[i] = row.count(static_cast<int>(7 + i));
        flows.restore(static_cast<uint64_t>(row.number(0)), std::move(key), flow, now_ms);
    }
    statement state(file_, "SELECT value FROM state WHERE name = ?");
    if (state.bind(0, std::string_view(EPOCH)).step())
        flows.set_epoch(state.text(0));
    state.reset();
    if (state.bind(0, std::string_view(UNCOUNTED)).step())
        flows.set_uncounted(state.count(0));
    state.reset();
    if (state.bind(0, std::string_view(HEARD)).step())
        flows.set_heard(state.number(0));
    statement ended(file_, "SELECT at_ms, id FROM ended_flows WHERE at_ms BETWEEN 0 AND ? "
                           "ORDER BY at_ms");
    ended.bind(0, now_ms); // those behind it are another boot's
    while (ended.step())
        flows.restore(ended_flows::entry{ended.number(0), static_cast<uint64_t>(ended.number(1))});
}

void store::replace_contents(ledger &flows, totals counted) {
    flows.forget_rows();
    totals_ = std::move(counted);
    totals_.forget_rows();
    is_replaced_ = true;
}

void store::write(ledger &flows, int64_t wall_s, int64_t monotonic_ms) {
    present_ = timeline_.at(wall_s, monotonic_ms);
    if (flows.pending().empty() && flows.changed().empty() && flows.removed().empty() &&
        !present_.moves_future && !is_replaced_)
        return;
    transaction all(file_);
    // Somebody else may have deleted what is at hand, or this transaction come to nothing.
    const int64_t data_version = data_version_of(file_);
    const bool is_ours = data_version_ == data_version;
    totals next = totals_;
    if (!is_ours && !is_replaced_) {
        next = totals();
        next.load(file_);
    }
    const int64_t hour_s = begin_of(PERIODS[HOURS], present_.minute_s);
    const bool is_at_hand = hour_s_ == hour_s && is_ours;
    hour_s_ = NONE_S;
    if (is_replaced_)
        file_.run(
            "DELETE FROM open_flows; DELETE FROM ended_flows; DELETE FROM application_totals; "
            "DELETE FROM client_totals; DELETE FROM candidates");
    if (present_.moves_future)
        move_future(present_.minute_s);
    if (!is_at_hand || present_.moves_future)
        load_hour(hour_s);
    for (const auto &[key, more] : flows.pending()) {
        add_sum(key, more);
        next.add(key, more);
        if (settings_.client_metrics)
            next.add_client(key.client, more);
    }
    write_flows(flows);
    next.write(file_);
    all.commit();
    totals_ = std::move(next);
    timeline_.written(present_);
    flows.written();
    data_version_ = data_version;
    hour_s_ = hour_s;
    is_replaced_ = false;
}

void store::write_clients(const std::vector<client_record> &clients) {
    transaction all(file_);
    statement update(file_, "UPDATE clients SET host_name = ifnull(nullif(?1, ''), host_name), "
                            "addresses = ifnull(nullif(?2, ''), addresses) WHERE client = ?3 AND "
                            "((?1 != '' AND host_name != ?1) OR (?2 != '' AND addresses != ?2))");
    for (const client_record &each : clients) {
        std::string addresses;
        for (const std::string &address : each.addresses)
            addresses += (addresses.empty() ? "" : " ") + address;
        const bool has_mac = !each.client_mac.empty();
        const std::string &client =
            has_mac || each.addresses.empty() ? each.client_mac : each.addresses.front();
        update.bind(0, std::string_view(each.host_name)).bind(1, std::string_view(addresses));
        update.bind(2, std::string_view(client)).run();
    }
    all.commit();
}

bool store::tidy() {
    const int64_t now_s = present_.minute_s;
    if (present_.is_believed) {
        // Cut where the next longer period begins, so that what is left of both has no gap between.
        if (delete_oldest(PERIODS[MINUTES],
                          begin_of(PERIODS[HOURS], now_s - PERIODS[MINUTES].kept_s)) ||
            delete_oldest(PERIODS[HOURS], begin_of(PERIODS[DAYS], now_s - PERIODS[HOURS].kept_s)) ||
            delete_oldest(PERIODS[DAYS], begin_of(PERIODS[DAYS], now_s - PERIODS[DAYS].kept_s)))
            return true;
    }
    return delete_beyond_limit() || shrink();
}

uint64_t store::size_bytes() {
    return static_cast<uint64_t>(file_.number("PRAGMA page_count") *
                                 file_.number("PRAGMA page_size"));
}

void store::load_hour(int64_t hour_s) {
    clients_.at_hand.clear();
    applications_.at_hand.clear();
    hour_pairs_.clear();
    hour_applications_.clear();
    statement pair(file_, "SELECT DISTINCT client, application FROM hours WHERE start = ?");
    pair.bind(0, hour_s);
    while (pair.step()) {
        hour_pairs_.insert(pair_key(pair.number(0), pair.number(1)));
        ++hour_applications_[pair.number(0)];
    }
}

void store::move_future(int64_t minute_s) {
    for (const period &each : PERIODS) {
        const std::string start = std::to_string(begin_of(each, minute_s));
        const std::string table = each.table;
        std::string sql = "CREATE TEMP TABLE moved AS SELECT ";
        sql.append(start).append(", client, application, verdict").append(summed_amounts());
        sql.append(" FROM ").append(table).append(" WHERE start >= ").append(start);
        sql.append(" GROUP BY client, application, verdict; DELETE FROM ").append(table);
        sql.append(" WHERE start >= ").append(start).append("; INSERT INTO ").append(table);
        sql.append(" SELECT * FROM moved; DROP TABLE moved; UPDATE state SET value = ");
        sql.append(start).append(" WHERE name = '").append(table).append(" from' AND value > ");
        file_.run(sql.append(start));
    }
}

void store::write_flows(const ledger &flows) {
    for (const uint64_t number : flows.removed())
        remove_flow_.bind(0, number).run();
    for (const ledger::flow_map::pointer each : flows.changed()) {
        if (each == nullptr)
            continue;
        const auto &[number, flow] = *each;
        const sum_key &key = *flow.key;
        write_flow_.bind(0, number).bind(1, std::string_view(key.client));
        write_flow_.bind(2, int64_t{flow.has_mac});
        write_flow_.bind(3, std::string_view(key.application.text));
        write_flow_.bind(4, int64_t{key.application.is_name}).bind(5, int64_t{key.verdict});
        write_flow_.bind(6, int64_t{flow.held});
        for (size_t i = 0; i < FLOW_COUNTS; ++i)
            write_flow_.bind(static_cast<int>(7 + i), flow.told[i]);
        write_flow_.run();
    }
    write_ended(flows.ended());
    set_state_.bind(0, std::string_view(EPOCH)).bind(1, std::string_view(flows.epoch())).run();
    set_state(HEARD, flows.heard_ms());
    set_state(UNCOUNTED, static_cast<int64_t>(std::min(flows.uncounted(), COUNT_MAX)));
}

void store::write_ended(const ended_flows &ended) {
    const std::deque<ended_flows::entry> &all = ended.all();
    if (ended.unwritten() == 0)
        return;
    for (size_t i = all.size() - ended.unwritten(); i < all.size(); ++i)
        write_ended_.bind(0, all[i].at_ms).bind(1, all[i].id).run();
    file_.run("DELETE FROM ended_flows WHERE at_ms NOT BETWEEN " +
              std::to_string(all.front().at_ms) + " AND " + std::to_string(all.back().at_ms));
}

void store::add_sum(const sum_key &key, const amounts &more) {
    const auto [client, application] = admitted(key);
    for (size_t i = 0; i < add_.size(); ++i) {
        add_[i].bind(0, begin_of(PERIODS[i], present_.minute_s));
        add_[i].bind(1, client).bind(2, application).bind(3, int64_t{key.verdict});
        bind_amounts(add_[i], 4, more);
        add_[i].run();
    }
}

// The rows under which it is counted: who makes up names doesn't fill the file.
std::pair<int64_t, int64_t> store::admitted(const sum_key &key) {
    const application_name &name = key.application;
    const std::optional<int64_t> client = known(clients_, key.client, false);
    const std::optional<int64_t> application = known(applications_, name.text, name.is_name);
    if (client && application && hour_pairs_.contains(pair_key(*client, *application)))
        return {*client, *application};
    if (hour_pairs_.size() >= hour_pairs_max(settings_))
        return {OTHER_ID, OTHER_ID};
    const int64_t client_id = client ? *client : made(clients_, key.client, false);
    size_t &applications = hour_applications_[client_id];
    if (applications >= APPLICATIONS_MAX)
        return {client_id, OTHER_ID};
    const int64_t application_id =
        application ? *application : made(applications_, name.text, name.is_name);
    ++applications;
    hour_pairs_.insert(pair_key(client_id, application_id));
    return {client_id, application_id};
}

std::optional<int64_t> store::known(named_rows &rows, const std::string &name, bool is_name) {
    const int64_t today_s = begin_of(PERIODS[DAYS], present_.minute_s);
    const std::string key = (is_name ? 'n' : ' ') + name;
    auto at = rows.at_hand.find(key);
    if (at == rows.at_hand.end()) {
        rows.find.bind(0, std::string_view(name));
        if (&rows == &applications_)
            rows.find.bind(1, int64_t{is_name});
        if (!rows.find.step())
            return std::nullopt;
        if (rows.at_hand.size() >= NAMES_AT_HAND)
            rows.at_hand.clear();
        at = rows.at_hand.emplace(key, named_rows::row{rows.find.number(0), rows.find.number(1)})
                 .first;
        rows.find.reset();
    }
    if (at->second.used_day_s < today_s) {
        rows.use.bind(0, today_s).bind(1, at->second.id).run();
        at->second.used_day_s = today_s;
    }
    return at->second.id;
}

int64_t store::made(named_rows &rows, const std::string &name, bool is_name) {
    rows.insert.bind(0, begin_of(PERIODS[DAYS], present_.minute_s));
    rows.insert.bind(1, std::string_view(name));
    if (&rows == &applications_)
        rows.insert.bind(2, int64_t{is_name});
    rows.insert.step();
    const int64_t id = rows.insert.number(0);
    rows.insert.run();
    return id;
}

void store::set_state(const std::string &name, int64_t value) {
    set_state_.bind(0, std::string_view(name)).bind(1, value).run();
}

// The rows of one start, if there are some before that time.
bool store::delete_oldest(const period &period, int64_t before_s) {
    const std::string table = period.table;
    const int64_t oldest_s =
        file_.number("SELECT ifnull(min(start), " + std::to_string(before_s) + ") FROM " + table);
    if (oldest_s >= before_s)
        return false;
    transaction all(file_);
    file_.run("DELETE FROM " + table + " WHERE start = " + std::to_string(oldest_s));
    set_state(table + " from", oldest_s + period.length_s);
    if (&period == &PERIODS[DAYS])
        drop_unused();
    all.commit();
    return true;
}

bool store::delete_beyond_limit() {
    const int64_t used =
        (file_.number("PRAGMA page_count") - file_.number("PRAGMA freelist_count")) *
        file_.number("PRAGMA page_size");
    const auto limit = static_cast<int64_t>(settings_.limit_mb * MEGABYTE);
    if (used <= limit - limit / 16)
        return false;
    for (const period &each : PERIODS) {
        if (delete_oldest(each, begin_of(each, present_.minute_s)))
            return true;
    }
    return false;
}

// Gives free pages back to the file system: those beyond the limit, or where they are many.
bool store::shrink() {
    const int64_t pages = file_.number("PRAGMA page_count");
    const int64_t unused = file_.number("PRAGMA freelist_count");
    const bool is_beyond_limit = unused > 0 && size_bytes() > settings_.limit_mb * MEGABYTE;
    if (!is_beyond_limit && unused <= std::max(FREE_PAGES_MIN, pages / 4))
        return false;
    file_.run("PRAGMA incremental_vacuum(" + std::to_string(PAGES_AT_ONCE) + ")");
    return file_.number("PRAGMA freelist_count") < unused;
}

// Of clients and applications without a row: days reach further back than hours and minutes.
void store::drop_unused() {
    for (const char *table : {"clients", "applications"})
        file_.run(std::string("DELETE FROM ") + table +
                  " WHERE used < (SELECT min(start) FROM days)");
    clients_.at_hand.clear();
    applications_.at_hand.clear();
}

} // namespace avwatch
