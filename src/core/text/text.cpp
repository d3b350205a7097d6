#include "core/text/text.h"

#include <charconv>
#include <limits>

namespace {

constexpr char TRIMMED[] = " \r\n";
constexpr char WHITE_SPACE[] = " \t\n\v\f\r";

} // namespace

std::string_view trimmed(std::string_view text) {
    const size_t first = text.find_first_not_of(TRIMMED);
    if (first == std::string_view::npos)
        return text.substr(0, 0);
    return text.substr(first, text.find_last_not_of(TRIMMED) - first + 1);
}

void jorn_strtrim(char *text) {
    if (text == nullptr)
        return;
    const std::string_view rest = trimmed(text);
    memmove(text, rest.data(), rest.size());
    text[rest.size()] = '\0';
}

int jorn_buf_append(char *buffer, const char *text, size_t *length, size_t capacity) {
    if (buffer == nullptr || text == nullptr || length == nullptr)
        return -1;
    text_appender to(buffer, length, capacity);
    to.append(text);
    return to.result();
}

void text_appender::append(std::string_view piece) {
    full_ = full_ || *length_ >= capacity_ || piece.size() >= capacity_ - *length_;
    if (full_)
        return;
    std::copy(piece.begin(), piece.end(), buffer_ + *length_);
    *length_ += piece.size();
    buffer_[*length_] = '\0';
}

void text_appender::number(int64_t value) {
    char digits[24];
    append({digits, std::to_chars(digits, digits + sizeof digits, value).ptr});
}

int64_t leading_decimal(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(WHITE_SPACE), text.size()));
    if (text.starts_with('+') && !text.starts_with("+-"))
        text.remove_prefix(1);
    int64_t number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    if (result.ec == std::errc::result_out_of_range)
        number = text.starts_with('-') ? std::numeric_limits<int64_t>::min()
                                       : std::numeric_limits<int64_t>::max();
    return number;
}

bool equals_ignoring_case(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), same_letter);
}

bool contains_ignoring_case(std::string_view text, std::string_view part) {
    return std::search(text.begin(), text.end(), part.begin(), part.end(), same_letter) !=
               text.end() ||
           part.empty();
}

bool lower_case_contains(std::string_view lower_case_text, std::string_view part) {
    char wanted[256];
    if (part.size() > lower_case_text.size() || part.size() > sizeof wanted)
        return false;
    std::transform(part.begin(), part.end(), wanted, ascii_lower);
    return memmem(lower_case_text.data(), lower_case_text.size(), wanted, part.size()) != nullptr;
}
