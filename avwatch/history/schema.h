// The history's file: its tables, and what else may be found in its place.
#pragma once

#include "avwatch/history/database.h"

#include <cstdint>

namespace avwatch {

// The sums by period. A row's `start` is the period's begin, in seconds since 1970; periods are
// UTC's. Each sum is added to a row of all three tables at once, so each of them alone is complete
// as far back as it reaches.
struct period {
    const char *table;
    int64_t length_s;
    int64_t kept_s;
};
inline constexpr int64_t HOUR_S = 3'600;
inline constexpr int64_t DAY_S = 24 * HOUR_S;
inline constexpr int64_t YEAR_S = 365 * DAY_S;
inline constexpr period PERIODS[] = {
    {"minutes", 60, 2 * DAY_S}, {"hours", HOUR_S, 60 * DAY_S}, {"days", DAY_S, 3 * YEAR_S}};
enum : size_t { MINUTES, HOURS, DAYS };

inline int64_t begin_of(const period &period, int64_t time_s) {
    return time_s - time_s % period.length_s;
}

// The rows' numbers of those that stand for all others.
inline constexpr int64_t OTHER_ID = 0;

// The file isn't one of this program's, or one of a later version's; it stays as it is.
struct foreign_history : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Makes what is missing, and of an older version the present one, in one transaction. Throws
// database_error and foreign_history.
void prepare_history(database &file);

// For readers: throws where the file isn't of the present version.
void check_history(database &file);

// From where on a table has every row, in seconds since 1970; 0: from the beginning.
int64_t reach_of(database &file, const period &period);

} // namespace avwatch
