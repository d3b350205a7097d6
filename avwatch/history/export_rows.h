// What exports keep in the history's file: the numbers of applications, and for "status" what has
// been sent since the start.
#pragma once

#include "avwatch/history/application_numbers.h"
#include "avwatch/history/database.h"

#include <cstdint>
#include <string>
#include <vector>

namespace avwatch {

struct export_counts {
    std::string target; // as the TOML file has it
    int64_t since_s = 0;
    uint64_t records = 0; // that were put into messages
    uint64_t messages = 0;
    uint64_t dropped = 0; // ended flows that waited in vain, news of too many flows
    uint64_t failed = 0;  // messages that were refused there
    uint64_t other = 0;   // records of applications that have no number of their own

    bool operator==(const export_counts &) const = default;
};

void read_numbers(database &file, application_numbers &numbers);
// What isn't written yet, in a transaction. The numbers are told.
void write_numbers(database &file, application_numbers &numbers);
// Of a copy: when it is put in the file's place, numbers given since it was made may be in use.
void forget_numbers(database &file);

// These take the place of what there is.
void write_exports(database &file, const std::vector<export_counts> &exports);
std::vector<export_counts> read_exports(database &file);

} // namespace avwatch
