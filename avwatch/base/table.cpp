#include "avwatch/base/table.h"

#include "avwatch/base/shown_text.h"

#include <algorithm>
#include <ostream>

namespace avwatch {
namespace {

constexpr size_t MANY_ROWS = 1'000;

} // namespace

table::table(std::vector<column> columns) : columns_(std::move(columns)) {
    std::vector<std::string> headings;
    for (const column &each : columns_)
        headings.emplace_back(each.heading);
    add(std::move(headings));
}

void table::add(std::vector<std::string> cells) {
    for (size_t i = 0; i < cells.size(); ++i) {
        cells[i] = cells[i].empty() ? "-" : shown_text(cells[i]);
        columns_[i].width = std::max(columns_[i].width, columns_of(cells[i]));
    }
    rows_.push_back(std::move(cells));
}

void table::print_many(std::ostream &out) {
    if (rows_.size() >= MANY_ROWS)
        print(out);
}

void table::print(std::ostream &out) {
    for (const std::vector<std::string> &cells : rows_) {
        std::string line;
        for (size_t i = 0; i < cells.size(); ++i) {
            const std::string padding(columns_[i].width - columns_of(cells[i]), ' ');
            line += columns_[i].is_number ? padding + cells[i] : cells[i] + padding;
            line += i + 1 < cells.size() ? "  " : "";
        }
        line.erase(line.find_last_not_of(' ') + 1);
        out << line << '\n';
    }
    rows_.clear();
}

} // namespace avwatch
