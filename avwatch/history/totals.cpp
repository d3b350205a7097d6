#include "avwatch/history/totals.h"

#include <algorithm>

namespace avwatch {
namespace {

const application_name &other_application() {
    static const application_name name = {OTHER, false};
    return name;
}

} // namespace

void totals::load(database &file) {
    statement application(file, "SELECT * FROM application_totals");
    while (application.step()) {
        application_name name = {application.text(0), application.number(1) != 0};
        series_.insert(name);
        applications_[{std::move(name), static_cast<uint8_t>(application.number(2))}] =
            amounts_in(application, 3);
    }
    statement client(file, "SELECT * FROM client_totals");
    while (client.step())
        clients_[client.text(0)] = amounts_in(client, 1);
    statement candidate(file, "SELECT application, is_name, bytes FROM candidates");
    while (candidate.step())
        candidates_[{candidate.text(0), candidate.number(1) != 0}] = candidate.count(2);
    series_.erase(other_application());
}

void totals::add(const sum_key &key, const amounts &more) {
    const application_name &name = key.application;
    if (!has_series(name) && name != other_application() && series_.size() < SERIES_MAX) {
        uint64_t &bytes = candidates_[name];
        bytes = std::min(bytes + more[UP_BYTES] + more[DOWN_BYTES], COUNT_MAX);
        changed_candidates_.insert(name);
        if (bytes >= SERIES_BYTES) {
            series_.insert(name);
            candidates_.erase(name);
        } else if (candidates_.size() > CANDIDATES_MAX) {
            drop_least_candidate();
        }
    }
    const application_series series = {has_series(name) ? name : other_application(), key.verdict};
    avwatch::add(applications_[series], more);
    changed_applications_.insert(series);
}

void totals::add_client(const std::string &client, const amounts &more) {
    const bool has_own = clients_.contains(client) || clients_.size() < CLIENTS_MAX;
    const std::string &series = has_own ? client : OTHER;
    avwatch::add(clients_[series], more);
    changed_clients_.insert(series);
}

void totals::write(database &file) {
    if (!changed_applications_.empty()) {
        statement row(file, upsert_sql("application_totals", "application, is_name, verdict",
                                       conflict::replaces));
        for (const application_series &each : changed_applications_) {
            const auto &[name, verdict] = each;
            row.bind(0, std::string_view(name.text)).bind(1, int64_t{name.is_name});
            row.bind(2, int64_t{verdict});
            bind_amounts(row, 3, applications_.at(each));
            row.run();
        }
    }
    if (!changed_clients_.empty()) {
        statement row(file, upsert_sql("client_totals", "client", conflict::replaces));
        for (const std::string &each : changed_clients_) {
            row.bind(0, std::string_view(each));
            bind_amounts(row, 1, clients_.at(each));
            row.run();
        }
    }
    if (!changed_candidates_.empty()) {
        statement gone(file, "DELETE FROM candidates WHERE application = ? AND is_name = ?");
        statement row(file, "INSERT OR REPLACE INTO candidates VALUES (?, ?, ?)");
        for (const application_name &each : changed_candidates_) {
            const auto at = candidates_.find(each);
            statement &used = at == candidates_.end() ? gone : row;
            used.bind(0, std::string_view(each.text)).bind(1, int64_t{each.is_name});
            if (at != candidates_.end())
                used.bind(2, at->second);
            used.run();
        }
    }
    changed_applications_.clear();
    changed_clients_.clear();
    changed_candidates_.clear();
}

void totals::forget_rows() {
    for (const auto &[series, values] : applications_)
        changed_applications_.insert(series);
    for (const auto &[client, values] : clients_)
        changed_clients_.insert(client);
    for (const auto &[name, bytes] : candidates_)
        changed_candidates_.insert(name);
}

bool totals::has_series(const application_name &name) {
    return series_.contains(name);
}

void totals::drop_least_candidate() {
    const auto least = std::min_element(
        candidates_.begin(), candidates_.end(),
        [](const auto &one, const auto &other) { return one.second < other.second; });
    changed_candidates_.insert(least->first);
    candidates_.erase(least);
}

std::string upsert_sql(const std::string &table, const std::string &keys, conflict what) {
    std::string columns = keys;
    std::string updates;
    for (const std::string column : AMOUNT_COLUMNS) {
        columns.append(", ").append(column);
        updates.append(updates.empty() ? "" : ", ").append(column).append(" = ");
        if (what == conflict::adds)
            updates.append("min(").append(column).append(" + excluded.").append(column);
        else
            updates.append("excluded.").append(column);
        if (what == conflict::adds)
            updates.append(", ").append(std::to_string(COUNT_MAX)).append(")");
    }
    const auto count = static_cast<size_t>(std::count(columns.begin(), columns.end(), ',')) + 1;
    std::string values = "?";
    for (size_t i = 1; i < count; ++i)
        values += ", ?";
    return "INSERT INTO " + table + " (" + columns + ") VALUES (" + values + ") ON CONFLICT (" +
           keys + ") DO UPDATE SET " + updates;
}

void bind_amounts(statement &to, int first, const amounts &values) {
    for (const uint64_t value : values)
        to.bind(first++, value);
}

amounts amounts_in(const statement &row, int first) {
    amounts values;
    for (uint64_t &value : values)
        value = row.count(first++);
    return values;
}

} // namespace avwatch
