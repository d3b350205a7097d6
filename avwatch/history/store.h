// The history as who writes it sees it: what the ledger has to add goes to the database in one
// transaction, and what is too old or too much goes out of it. One writer at a time: a lock beside
// the file says so (the flows would be counted twice).
//
// WAL with synchronous = NORMAL: a process that ends at any moment loses nothing that was
// committed; a power cut may take the transactions since the last checkpoint, with their sums and
// open flows alike, and leaves the file whole.
//
// The file may be locked, full or broken at any time: then a call throws database_error, nothing of
// it has happened, and it may be tried again.
#pragma once

#include "avwatch/client/records.h"
#include "avwatch/history/database.h"
#include "avwatch/history/export_rows.h"
#include "avwatch/history/history_settings.h"
#include "avwatch/history/ledger.h"
#include "avwatch/history/schema.h"
#include "avwatch/history/timeline.h"
#include "avwatch/history/totals.h"
#include "shared/unique_fd.h"

#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>

namespace avwatch {

// Holds the lock beside the history's file, and makes the folder. Throws refused, where somebody
// else holds it, too.
unique_fd lock_history(const std::string &file);

class store {
public:
    static constexpr size_t APPLICATIONS_MAX = 200; // of a client and hour

    // Throws database_error and foreign_history.
    explicit store(const history_settings &settings);

    // Gives the ledger the open flows; at the start.
    void restore(ledger &flows, int64_t now_ms);
    void restore(application_numbers &numbers) { read_numbers(file_, numbers); }
    // The ledger was filled from another file, whose totals were these: with what is written next
    // they take the place of this one's.
    void replace_contents(ledger &flows, totals counted);

    // Writes what the ledger has to add, in the present minute. The ledger is told.
    void write(ledger &flows, int64_t wall_s, int64_t monotonic_ms);
    void write(application_numbers &numbers) { write_numbers(file_, numbers); }
    void write(const std::vector<export_counts> &exports) { write_exports(file_, exports); }
    // What clients call themselves, and their addresses, of those that the history has; what they
    // don't say now stays.
    void write_clients(const std::vector<client_record> &clients);

    // Deletes a little of what is too old or too much; false when there is nothing more to do.
    bool tidy();

    const totals &committed() const { return totals_; }
    uint64_t size_bytes(); // of the file

private:
    // The rows of a table of names, clients' or applications', with the day when each was used
    // last.
    struct named_rows {
        named_rows(database &file, const std::string &table, const std::string &columns,
                   const std::string &marks);

        struct row {
            int64_t id;
            int64_t used_day_s;
        };
        statement find, insert, use;
        std::unordered_map<std::string, row> at_hand;
    };

    static constexpr int64_t NONE_S = -1;

    void load_hour(int64_t hour_s);
    void move_future(int64_t minute_s);
    void write_flows(const ledger &flows);
    void write_ended(const ended_flows &ended);
    void add_sum(const sum_key &key, const amounts &more);
    std::pair<int64_t, int64_t> admitted(const sum_key &key);
    std::optional<int64_t> known(named_rows &rows, const std::string &name, bool is_name);
    int64_t made(named_rows &rows, const std::string &name, bool is_name);
    void set_state(const std::string &name, int64_t value);
    bool delete_oldest(const period &period, int64_t before_s);
    bool delete_beyond_limit();
    bool shrink();
    void drop_unused();

    history_settings settings_;
    database file_;
    timeline timeline_;
    timeline::present present_;
    int64_t data_version_; // what others had written when `totals_` and the hour were read
    totals totals_;
    bool is_replaced_ = false;
    int64_t hour_s_ = NONE_S; // of what follows; none when it may not be what the file says
    std::unordered_set<uint64_t> hour_pairs_;               // of a client and an application
    std::unordered_map<int64_t, size_t> hour_applications_; // by client
    named_rows clients_;
    named_rows applications_;
    std::vector<statement> add_; // by period
    statement write_flow_;
    statement remove_flow_;
    statement write_ended_;
    statement set_state_;
};

} // namespace avwatch
