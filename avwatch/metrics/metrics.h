// The text that a Prometheus scrapes (format 0.0.4). Its counters come of the history's totals
// alone, which are committed: none ever falls. What avcore and the gate say of themselves falls
// when they start anew, so it is gauges.
#pragma once

#include "avwatch/client/records.h"
#include "avwatch/history/export_rows.h"
#include "avwatch/history/totals.h"

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace avwatch {

struct health {
    bool hears_avcore = false;
    counts_record counts; // what avcore said last
    counts_record gate;   // numbers_in its answer; empty where there is none
    bool writes_history = false;
    int64_t written_s = 0;      // the last transaction, since 1970; 0: none yet
    uint64_t history_bytes = 0; // of the file
    uint64_t open_flows = 0;
    uint64_t uncounted = 0; // messages about flows that are too many
    std::vector<export_counts> exports;
    uint64_t passed_over = 0; // messages that weren't understood, of this connection
};

// An object's numbers by their names, and those of objects in it with a dot between: truth is 1. Of
// too many the last ones are left out.
counts_record numbers_in(const nlohmann::json &object);

struct metrics_settings {
    names_kept names = names_kept::full;
    bool clients = false;
};

std::string metrics_text(const totals &committed, const health &state,
                         const metrics_settings &settings);

} // namespace avwatch
