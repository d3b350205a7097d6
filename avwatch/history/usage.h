// What the history says about the past, read from the file while somebody may be writing it.
//
// Rows are UTC's periods. An hour is shown as it is kept. A day is the local one, summed from
// hours, each in the day in which it begins; of the time of which only days are left it is UTC's.
//
// There may be millions of rows: SQLite groups and sorts them, beyond a few MB in files of its own,
// and they are handed over one by one.
#pragma once

#include "avwatch/client/known_clients.h"
#include "avwatch/history/amounts.h"
#include "avwatch/history/application_names.h"
#include "avwatch/history/database.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace avwatch {

enum class grouping { none, hour, day };

struct usage_query {
    int64_t since_s = 0; // to the minute, where minutes are left
    int64_t now_s = 0;
    grouping by = grouping::none;
    bool utc = false;
    names_kept names = names_kept::full; // at most
    std::string client;                  // empty: all
    std::string application;             // in any case; empty: all
};

struct usage_row {
    int64_t start_s = 0; // without grouping: since_s
    std::string client;
    std::string application;
    uint8_t verdict = 0;
    amounts values = {};
};

struct usage_reach {
    int64_t hours_from_s = 0; // before it there are only days; 0: never
    int64_t days_from_s = 0;  // before it there is nothing; 0: never
};

// By time, then the most bytes first.
using usage_taker = std::function<void(const usage_row &row, const usage_reach &reach)>;
usage_reach read_usage(database &file, const usage_query &query, const usage_taker &take);

// The sums of hours or days over all that the query asks for, in their order, without those in
// which nothing was.
struct usage_bar {
    int64_t start_s = 0;
    bool is_utc_day = false; // else the day is the query's
    amounts values = {};
};
std::vector<usage_bar> read_bars(database &file, const usage_query &query);

// What the history's clients said of themselves: of the one with this key, and of those that are
// meant by an address or a host name, some at most, the latest first.
std::optional<client_record> read_client(database &file, const std::string &key);
std::vector<client_record> read_clients_meant(database &file, const std::string &meant);

// When the first row of each period's table begins, in seconds; 0 without rows.
std::vector<int64_t> first_starts(database &file);

// "90m", "24h", "7d", "2w": seconds. Nothing for anything else, and for more than a hundred years.
std::optional<int64_t> duration_s(std::string_view text);

} // namespace avwatch
