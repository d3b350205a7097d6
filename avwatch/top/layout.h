// Lines of a screen and columns of a table on it, as many of them as fit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace avwatch {

struct screen_size {
    size_t lines = 0, columns = 0;
};

enum class line_style : uint8_t { plain, title, path, heading, denied, faded, chosen, trouble };

struct screen_line {
    std::string text; // not wider than the screen, and made showable
    line_style style = line_style::plain;
};

struct screen_column {
    const char *heading;
    size_t width;           // at least
    unsigned rank;          // columns of higher ranks leave first
    bool is_number = false; // it stands at the right
    bool grows = false;     // it shares what is left
};

// The character that a text begins with, which is taken off it. Of valid UTF-8.
char32_t take_character(std::string_view &text);
// Columns that it takes on a terminal of the locale's.
size_t columns_of_character(char32_t character);

// Text from anywhere, made showable, as wide as that exactly: cut, with a ~ at its end, or filled
// with blanks.
std::string fitted(std::string_view text, size_t columns, bool at_right = false);
// The same of what is showable, which may have marks that wouldn't be.
std::string fitted_shown(std::string shown, size_t columns, bool at_right = false);
// In lines of that width at most, broken at blanks where there are some.
std::vector<std::string> wrapped(std::string_view text, size_t columns);

// Which columns fit into so much, and how wide each is.
class row_layout {
public:
    row_layout(std::span<const screen_column> columns, size_t width);

    std::string heading() const;
    // A cell for each column, whether it fits or not. An empty one is "-".
    std::string row(const std::vector<std::string> &cells) const;

private:
    std::string joined(const std::vector<std::string> &cells, bool is_heading) const;

    std::vector<screen_column> columns_;
    std::vector<size_t> widths_; // 0: it doesn't fit
};

} // namespace avwatch
