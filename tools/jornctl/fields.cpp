#include "jornctl/fields.h"

#include "core/text/text.h"

#include <algorithm>
#include <array>

namespace jornctl {
namespace {

// Lines of the application-policy file that end a block, wherever they stand in a line and in
// whatever letter case: a name that holds one would cut the file.
constexpr std::array<std::string_view, 2> FILE_MARKERS = {"[policy end]", "[userdef end]"};

constexpr char DELETE_CHARACTER = 0x7F;

std::string joined(std::span<const char *const> words) {
    std::string list;
    for (const char *const word : words)
        list += (list.empty() ? "" : ", ") + std::string(word);
    return list;
}

bool is_control(char c) {
    return (c >= 0 && c < ' ') || c == DELETE_CHARACTER;
}

} // namespace

uint32_t number_in(const node &from, uint32_t min, uint32_t max) {
    // The parser makes a number without a sign unsigned, one that fits no 64 bits floating.
    const auto *const number = from.value.get_ptr<const nlohmann::json::number_unsigned_t *>();
    if (number == nullptr || *number < min || *number > max)
        from.refuse("is " + from.described() + "; it must be a whole number from " +
                    std::to_string(min) + " to " + std::to_string(max));
    return static_cast<uint32_t>(*number);
}

bool flag_in(const node &from) {
    if (from.value.is_boolean())
        return from.value.get<bool>();
    if (from.value != 0 && from.value != 1)
        from.refuse("is " + from.described() + "; it must be true or false");
    return from.value == 1;
}

std::string string_in(const node &from) {
    if (!from.value.is_string())
        from.refuse("is " + from.described() + "; it must be a text");
    return from.value.get<std::string>();
}

std::string text_in(const node &from, size_t min, size_t max) {
    std::string text = string_in(from);
    if (text.size() < min)
        from.refuse("is empty");
    if (text.size() > max)
        from.refuse("has " + std::to_string(text.size()) + " bytes; " + std::to_string(max) +
                    " have room");
    if (std::any_of(text.begin(), text.end(), is_control))
        from.refuse("holds a control character");
    return text;
}

uint8_t word_number(const node &from, std::span<const char *const> words) {
    const auto found = std::find_if(words.begin(), words.end(),
                                    [&](const char *word) { return from.value == word; });
    if (found == words.end())
        from.refuse("is " + from.described() + "; it must be one of " + joined(words));
    return static_cast<uint8_t>(found - words.begin());
}

void check_file_text(const node &from, std::string_view text) {
    const char *const lost = "; the daemon couldn't read that back from its file";
    if (text.find_first_of(",;") != std::string_view::npos)
        from.refuse(std::string("holds a comma or a semicolon") + lost);
    if (text.starts_with(' ') || text.ends_with(' '))
        from.refuse(std::string("begins or ends with a blank") + lost);
    for (const std::string_view marker : FILE_MARKERS) {
        if (contains_ignoring_case(text, marker))
            from.refuse("holds \"" + std::string(marker) + '"' + lost);
    }
}

void check_keys(const node &from, std::span<const char *const> keys) {
    if (!from.value.is_object())
        from.refuse("is " + from.described() + "; it must be an object");
    for (const auto &[key, value] : from.value.items()) {
        if (std::find(keys.begin(), keys.end(), key) == keys.end())
            node{value, from.path / key}.refuse("isn't known here; the keys are " + joined(keys));
    }
}

void check_array(const node &from, size_t most) {
    if (!from.value.is_array())
        from.refuse("is " + from.described() + "; it must be an array");
    if (from.value.size() > most)
        from.refuse("has " + std::to_string(from.value.size()) + " elements; " +
                    std::to_string(most) + " have room");
}

} // namespace jornctl
