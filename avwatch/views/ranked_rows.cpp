#include "avwatch/views/ranked_rows.h"

#include <algorithm>
#include <functional>
#include <iostream>

namespace avwatch {
namespace {

constexpr char BETWEEN_CELLS = '\n';

} // namespace

void ranked_rows::add(uint64_t amount, const std::vector<std::string> &cells) {
    std::string text;
    for (const std::string &cell : cells) {
        const size_t begin = text.size();
        text += cell;
        // A table shows one as it shows the other.
        std::replace(text.begin() + static_cast<std::ptrdiff_t>(begin), text.end(), BETWEEN_CELLS,
                     '\0');
        text += BETWEEN_CELLS;
    }
    text.shrink_to_fit();
    rows_.emplace_back(amount, std::move(text));
}

void ranked_rows::print(table &lines) {
    sort();
    for (const auto &[amount, text] : rows_) {
        std::vector<std::string> cells;
        for (size_t at = 0; at < text.size();) {
            const size_t end = text.find(BETWEEN_CELLS, at);
            cells.push_back(text.substr(at, end - at));
            at = end + 1;
        }
        lines.add(std::move(cells));
        lines.print_many(std::cout);
    }
    lines.print(std::cout);
}

void ranked_rows::print_lines() {
    sort();
    for (const auto &[amount, text] : rows_)
        std::cout << text; // with its end
}

void ranked_rows::sort() {
    std::ranges::stable_sort(rows_, std::greater(), &std::pair<uint64_t, std::string>::first);
}

} // namespace avwatch
