#include "avcore/web/category_names.h"

#include "avcore/base/config_text.h"
#include "avcore/base/printable.h"
#include "avcore/web/blanks.h"
#include "core/text/text.h"
#include "platform/psm.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <system_error>

namespace avcore {
namespace {

constexpr uint16_t NONE = 0;

std::string_view name_of(size_t number) {
    return g_cat_map[number] + 1;
}

std::string_view without_blanks(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(BLANKS), text.size()));
    return text.substr(0, text.find_last_not_of(BLANKS) + 1);
}

// The longest beginning of the text that is a category and ends with a word; it is taken away.
uint16_t take_category(std::string_view &text) {
    for (size_t end = text.size(); end > 0;) {
        const std::string_view begin = without_blanks(text.substr(0, end));
        if (const std::optional<uint16_t> number = category_number(begin)) {
            text = without_blanks(text.substr(end));
            return *number;
        }
        const size_t blank = begin.find_last_of(BLANKS);
        end = blank == std::string_view::npos ? 0 : blank;
    }
    throw config_error(no_category(text));
}

} // namespace

std::optional<uint16_t> category_number(std::string_view text) {
    uint16_t number = NONE;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error == std::errc() && end == text.data() + text.size())
        return number == NONE ? std::nullopt : std::optional(number);
    for (size_t id = NONE + 1; id < std::size(g_cat_map) && !text.empty(); ++id) {
        if (equals_ignoring_case(text, name_of(id)))
            return static_cast<uint16_t>(id);
    }
    return std::nullopt;
}

std::vector<uint16_t> category_numbers(std::string_view text) {
    std::vector<uint16_t> numbers;
    while (!text.empty()) {
        std::string_view part = text.substr(0, text.find(','));
        text.remove_prefix(std::min(part.size() + 1, text.size()));
        for (part = without_blanks(part); !part.empty();)
            numbers.push_back(take_category(part));
    }
    return numbers;
}

std::string no_category(std::string_view text) {
    return std::string("'")
        .append(printable(text))
        .append("' is no category: a whole number from 1, or a name that \"jornctl categories\" "
                "prints");
}

std::string category_text(uint32_t number) {
    const std::string text = "category " + std::to_string(number);
    return number < std::size(g_cat_map) ? text + " (" + std::string(name_of(number)) + ')' : text;
}

} // namespace avcore
