// What the metrics count: sums since the history began, which never fall.
//
// A series stays for good, so names from the network don't get one each: an application that
// reaches SERIES_BYTES does, from then on; SERIES_MAX at most, all others add to "other". Who is on
// the way there is bounded, too: a new one takes the place of who has least. Of clients the first
// CLIENTS_MAX have one.
//
// A value: a transaction works on a copy, which takes the original's place when it is committed.
#pragma once

#include "avwatch/history/database.h"
#include "avwatch/history/ledger.h"

#include <map>
#include <set>
#include <string>
#include <utility>

namespace avwatch {

class totals {
public:
    static constexpr uint64_t SERIES_BYTES = 1'000'000;
    static constexpr size_t SERIES_MAX = 100;
    static constexpr size_t CANDIDATES_MAX = 1'024;
    static constexpr size_t CLIENTS_MAX = 1'000;

    using application_series = std::pair<application_name, uint8_t>; // with a verdict

    void load(database &file);
    void add(const sum_key &key, const amounts &more);
    void add_client(const std::string &client, const amounts &more);
    void write(database &file); // what changed since the last write or load
    void forget_rows();         // of the file: everything is to be written

    const std::map<application_series, amounts> &applications() const { return applications_; }
    const std::map<std::string, amounts> &clients() const { return clients_; }

private:
    bool has_series(const application_name &name);
    void drop_least_candidate();

    std::set<application_name> series_;
    std::map<application_series, amounts> applications_;
    std::map<std::string, amounts> clients_;
    std::map<application_name, uint64_t> candidates_; // with their bytes

    std::set<application_series> changed_applications_;
    std::set<std::string> changed_clients_;
    std::set<application_name> changed_candidates_; // may have gone
};

// "INSERT ... VALUES (...) ON CONFLICT (...) DO UPDATE" of a table whose first columns are `keys`,
// and whose last ones are the amounts: added to those of a row that is there, or in their place.
enum class conflict { adds, replaces };
std::string upsert_sql(const std::string &table, const std::string &keys, conflict what);
void bind_amounts(statement &to, int first, const amounts &values);
amounts amounts_in(const statement &row, int first);

} // namespace avwatch
