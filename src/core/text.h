// Text in fixed arrays: copies that stay inside both ends and always end with a NUL.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string_view>

// Letter case as names have it: A to Z only, whatever the locale.
constexpr char ascii_lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// The text in a field that need not hold a NUL: it ends at the first one or with the field.
template <size_t N>
std::string_view field_text(const char (&field)[N]) {
    return {field, strnlen(field, N)};
}

// Copies at most N - 1 bytes of `text` up to its first NUL and fills the rest of the field with
// NULs.
template <size_t N>
void copy_text(char (&field)[N], std::string_view text) {
    const size_t length = std::min(text.substr(0, text.find('\0')).size(), N - 1);
    memcpy(field, text.data(), length);
    memset(field + length, 0, N - length);
}
