// Rows that are printed with the largest amount first. There may be as many as the gate has flows,
// and the machine may be small: each is kept as one text.
#pragma once

#include "avwatch/base/table.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace avwatch {

class ranked_rows {
public:
    void add(uint64_t amount, const std::vector<std::string> &cells);
    // As rows of a table, whose columns are aligned some rows at a time.
    void print(table &lines);
    // Of rows of one cell: as lines.
    void print_lines();

private:
    void sort();

    std::vector<std::pair<uint64_t, std::string>> rows_;
};

} // namespace avwatch
