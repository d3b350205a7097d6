#include "avwatch/top/layout.h"

#include "avwatch/base/shown_text.h"

#include <algorithm>
#include <cwchar>
#include <utility>

namespace avwatch {
namespace {

constexpr size_t GAP = 2;
constexpr std::string_view MARK = "\u200E"; // that shown_text puts around right-to-left letters
constexpr char CUT = '~';

size_t columns_of_text(std::string_view shown) {
    size_t columns = 0;
    while (!shown.empty())
        columns += columns_of_character(take_character(shown));
    return columns;
}

// As much of the text as fits.
std::string cut_to(std::string_view shown, size_t columns) {
    std::string_view rest = shown;
    size_t taken = 0;
    size_t length = 0;
    while (!rest.empty()) {
        taken += columns_of_character(take_character(rest));
        if (taken > columns)
            break;
        length = shown.size() - rest.size();
    }
    return std::string(shown.substr(0, length));
}

} // namespace

char32_t take_character(std::string_view &text) {
    const auto lead = static_cast<unsigned char>(text.front());
    const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
    char32_t character = length == 1 ? lead : lead & (0x7Fu >> length);
    for (size_t i = 1; i < length && i < text.size(); ++i)
        character = character << 6 | (static_cast<unsigned char>(text[i]) & 0x3Fu);
    text.remove_prefix(std::min(length, text.size()));
    return character;
}

size_t columns_of_character(char32_t character) {
    const int columns = wcwidth(static_cast<wchar_t>(character));
    return columns >= 0 ? static_cast<size_t>(columns) : 1;
}

std::string fitted(std::string_view text, size_t columns, bool at_right) {
    return fitted_shown(shown_text(text), columns, at_right);
}

std::string fitted_shown(std::string shown, size_t columns, bool at_right) {
    size_t taken = columns_of_text(shown);
    if (taken > columns) {
        const bool is_marked = shown.starts_with(MARK);
        shown = columns > 0 ? cut_to(shown, columns - 1) + CUT : std::string();
        if (is_marked)
            shown += MARK;
        taken = columns_of_text(shown);
    }
    const std::string padding(columns - std::min(columns, taken), ' ');
    return at_right ? padding + shown : shown + padding;
}

std::vector<std::string> wrapped(std::string_view text, size_t columns) {
    std::vector<std::string> lines;
    std::string rest = shown_text(text);
    while (columns > 0 && columns_of_text(rest) > columns) {
        std::string line = cut_to(rest, columns);
        const size_t blank = line.rfind(' ');
        if (blank != std::string::npos && blank > line.size() / 2)
            line.resize(blank + 1);
        if (line.empty())
            break; // a character that is wider than the screen
        rest.erase(0, line.size());
        lines.push_back(fitted_shown(std::move(line), columns));
    }
    lines.push_back(fitted_shown(std::move(rest), columns));
    return lines;
}

row_layout::row_layout(std::span<const screen_column> columns, size_t width)
    : columns_(columns.begin(), columns.end()), widths_(columns.size()) {
    unsigned last_rank = 0;
    for (const screen_column &each : columns_)
        last_rank = std::max(last_rank, each.rank);
    size_t taken = 0;
    size_t growing = 0;
    bool fits = true;
    for (unsigned rank = 0; rank <= last_rank && fits; ++rank) {
        for (size_t i = 0; i < columns_.size() && fits; ++i) {
            if (columns_[i].rank != rank)
                continue;
            const size_t more = columns_[i].width + (taken > 0 ? GAP : 0);
            fits = taken + more <= width || taken == 0;
            if (!fits)
                break;
            widths_[i] = std::min(columns_[i].width, width);
            taken += more;
            growing += columns_[i].grows ? 1 : 0;
        }
    }
    for (size_t i = 0; i < columns_.size(); ++i) {
        if (widths_[i] == 0 || !columns_[i].grows || taken >= width || growing == 0)
            continue;
        const size_t share = (width - taken) / growing--;
        widths_[i] += share;
        taken += share;
    }
}

std::string row_layout::joined(const std::vector<std::string> &cells, bool is_heading) const {
    std::string line;
    for (size_t i = 0; i < columns_.size(); ++i) {
        if (widths_[i] == 0)
            continue;
        if (!line.empty())
            line.append(GAP, ' ');
        const std::string &cell = cells[i];
        line += fitted(cell.empty() && !is_heading ? "-" : cell, widths_[i], columns_[i].is_number);
    }
    return line;
}

std::string row_layout::heading() const {
    std::vector<std::string> cells;
    for (const screen_column &each : columns_)
        cells.emplace_back(each.heading);
    return joined(cells, true);
}

std::string row_layout::row(const std::vector<std::string> &cells) const {
    return joined(cells, false);
}

} // namespace avwatch
