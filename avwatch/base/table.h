// Rows of cells as aligned lines under a heading. Cells may hold anything: they are made showable
// here.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <vector>

namespace avwatch {

struct column {
    const char *heading;
    bool is_number = false; // it stands at the right
    size_t width = 0;       // at least; for tables whose rows come one by one
};

class table {
public:
    explicit table(std::vector<column> columns);

    // As many cells as there are columns. An empty one is "-".
    void add(std::vector<std::string> cells);

    // Prints what was added since it last did, the first time below the heading. Columns only grow.
    void print(std::ostream &out);
    // For tables that may be long: does so once many rows wait.
    void print_many(std::ostream &out);

private:
    std::vector<column> columns_;
    std::vector<std::vector<std::string>> rows_;
};

} // namespace avwatch
