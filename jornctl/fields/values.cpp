#include "jornctl/fields/values.h"

#include "core/text/text.h"
#include "jornctl/base/addresses.h"
#include "shared/suggestion.h"

namespace jornctl {
namespace {

constexpr char DELETE_CHARACTER = 0x7F;
constexpr size_t LISTED_MAX = 32; // more words, as web categories have, bury the message

bool is_control(char c) {
    return static_cast<unsigned char>(c) < ' ' || c == DELETE_CHARACTER;
}

std::vector<std::string> texts_of(std::span<const named_number> words) {
    std::vector<std::string> texts;
    for (const named_number &each : words)
        texts.emplace_back(each.word);
    return texts;
}

const named_number *find_word(const node &from, std::span<const named_number> words) {
    for (const named_number &each : words) {
        if (from.value == each.word)
            return &each;
    }
    return nullptr;
}

void check_file_text(const node &from, std::string_view text, const file_format &format) {
    const char *const lost = "; the daemon couldn't read that back from its file";
    if (text.find_first_of(format.separators()) != std::string_view::npos)
        from.refuse("holds one of \"" + format.separators() + '"' + lost);
    if (format.trims && (text.starts_with(' ') || text.ends_with(' ')))
        from.refuse(std::string("begins or ends with a blank") + lost);
    for (const std::string_view marker : format.markers) {
        if (contains_ignoring_case(text, marker))
            from.refuse("holds \"" + std::string(marker) + '"' + lost);
    }
}

// As a regular expression that finds the text in any letter case.
std::string pattern_of(std::string_view marker) {
    std::string pattern;
    for (const char c : marker) {
        const char lower = ascii_lower(c);
        if (lower >= 'a' && lower <= 'z')
            pattern += {'[', static_cast<char>(lower - 'a' + 'A'), lower, ']'};
        else
            pattern += c == '[' || c == ']' ? std::string{'\\', c} : std::string{c};
    }
    return pattern;
}

// What check_file_text and is_control find.
std::string forbidden_pattern(const file_format *format) {
    std::string pattern = "[\\u0000-\\u001f\\u007f";
    if (format == nullptr)
        return pattern + "]";
    pattern += format->separators() + ']';
    if (format->trims)
        pattern += "|^ | $";
    for (const std::string_view marker : format->markers)
        pattern += '|' + pattern_of(marker);
    return pattern;
}

} // namespace

std::string string_in(const node &from) {
    if (!from.value.is_string())
        from.refuse("is " + from.described() + "; it must be a text");
    return from.value.get<std::string>();
}

int64_t number_in(const node &from, int64_t min, int64_t max, const char *remedy) {
    // A number that fits no 64 bits is floating, and one beyond the signed ones unsigned.
    const bool is_whole = from.value.is_number_integer();
    const bool is_huge = is_whole && from.value.is_number_unsigned() &&
                         from.value.get<uint64_t>() > std::numeric_limits<int64_t>::max();
    const int64_t number = is_whole && !is_huge ? from.value.get<int64_t>() : 0;
    if (!is_whole || is_huge || number < min || number > max)
        from.refuse("is " + from.described() + "; it must be a whole number from " +
                    std::to_string(min) + " to " + std::to_string(max) +
                    (!is_whole || is_huge || number > max ? remedy : ""));
    return number;
}

ordered_json number_schema(int64_t min, int64_t max) {
    return {{"type", "integer"}, {"minimum", min}, {"maximum", max}};
}

bool flag_in(const node &from) {
    if (from.value.is_boolean())
        return from.value.get<bool>();
    if (from.value != 0 && from.value != 1)
        from.refuse("is " + from.described() + "; it must be true or false");
    return from.value == 1;
}

ordered_json flag_words(uint32_t from) {
    return from <= 1 ? ordered_json(from == 1) : ordered_json(from);
}

ordered_json flag_schema() {
    return {{"type", {"boolean", "integer"}}, {"minimum", 0}, {"maximum", 1}};
}

bool is_word(const node &from, std::span<const named_number> words) {
    return find_word(from, words) != nullptr;
}

uint32_t word_in(const node &from, std::span<const named_number> words) {
    const named_number *const found = find_word(from, words);
    if (found == nullptr) {
        const std::string close =
            from.value.is_string() ? did_you_mean(string_in(from), texts_of(words)) : "";
        from.refuse("is " + from.described() + close + "; it must be one of " +
                    joined(texts_of(words)));
    }
    return found->number;
}

void refuse_number_or_word(const node &from, int64_t min, int64_t max,
                           std::span<const named_number> words) {
    const std::vector<std::string> known = texts_of(words);
    from.refuse("is " + from.described() + did_you_mean(string_in(from), known) +
                "; it must be a whole number from " + std::to_string(min) + " to " +
                std::to_string(max) + " or " +
                (known.size() > LISTED_MAX ? "a name that `jornctl categories` prints"
                                           : "one of " + joined(known)));
}

uint32_t address_in(const node &from) {
    const std::optional<uint32_t> parsed = parse_address(string_in(from));
    if (!parsed)
        from.refuse("is " + from.described() + "; it must be an IPv4 address");
    return *parsed;
}

ordered_json address_words(uint32_t address_be) {
    return address_be == 0 ? ordered_json() : ordered_json(format_address(address_be));
}

ordered_json address_schema() {
    return {{"type", "string"}, {"pattern", address_pattern()}};
}

ordered_json word_for(uint32_t number, std::span<const named_number> words) {
    const auto known = std::ranges::find(words, number, &named_number::number);
    if (known == words.end())
        return number;
    const auto read_as =
        std::ranges::find(words, std::string_view(known->word), &named_number::word);
    return read_as == known ? ordered_json(known->word) : ordered_json(number);
}

ordered_json words_schema(std::span<const named_number> words) {
    return {{"enum", texts_of(words)}};
}

std::string text_in(const node &from, size_t min, size_t max, const file_format *format) {
    std::string text = string_in(from);
    if (text.size() < min)
        from.refuse("is empty");
    if (text.size() > max)
        from.refuse("has " + std::to_string(text.size()) + " bytes; " + std::to_string(max) +
                    " have room");
    if (std::any_of(text.begin(), text.end(), is_control))
        from.refuse("holds a control character");
    if (format != nullptr)
        check_file_text(from, text, *format);
    return text;
}

ordered_json text_schema(size_t min, size_t max, const file_format *format) {
    ordered_json schema = {{"type", "string"}};
    if (min > 0)
        schema["minLength"] = min;
    schema["maxLength"] = max;
    schema["not"] = {{"pattern", forbidden_pattern(format)}};
    return schema;
}

} // namespace jornctl
