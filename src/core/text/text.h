// Text in fixed arrays: copies that stay inside both ends and always end with a NUL. And what the
// readers and writers of the text files do with text.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

// Letter case as names have it: A to Z only, whatever the locale.
constexpr char ascii_lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr bool same_letter(char a, char b) {
    return ascii_lower(a) == ascii_lower(b);
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
    text.copy(field, length); // of no text, too, which may lie nowhere
    memset(field + length, 0, N - length);
}

// The same in lower case, without a branch on each letter: the loop becomes vector instructions. It
// doesn't read back what was just written, which the processor would wait for.
template <size_t N>
void copy_lower_case(char (&field)[N], std::string_view text) {
    const size_t length = std::min(text.substr(0, text.find('\0')).size(), N - 1);
    for (size_t i = 0; i < length; ++i)
        field[i] = ascii_lower(text[i]);
    memset(field + length, 0, N - length);
}

// Cuts a text that came from outside where its field ends.
template <size_t N>
void terminate(char (&field)[N]) {
    field[N - 1] = '\0';
}

// A name that the platform or a peer has told, as logs, listings and files may show it: bounded,
// and with a question mark for each control character, so that no name makes up a line of its own.
// It may hold any other byte. Lives as long as the statement that shows it.
class printable_text {
public:
    explicit printable_text(std::string_view name) {
        size_t length = 0;
        for (const char c : name.substr(0, sizeof text_ - 1)) {
            if (c == '\0')
                break;
            const auto byte = static_cast<unsigned char>(c);
            text_[length++] = byte < 0x20 || byte == 0x7F ? '?' : c;
        }
        text_[length] = '\0';
    }
    explicit printable_text(const char *name) : printable_text(std::string_view(name)) {}
    const char *c_str() const { return text_; }

private:
    char text_[257]; // holds the longest domain name
};

// Without the spaces, carriage returns and line feeds at both ends; a tab stays.
std::string_view trimmed(std::string_view text);

// The same in place: the rest moves to the start of the buffer.
void jorn_strtrim(char *text);

// Appends `text` to the `*length` characters in `buffer` and adds its length to `*length`. Returns
// 0, or -1 with nothing changed when a pointer is missing or the sum would reach `capacity`.
int jorn_buf_append(char *buffer, const char *text, size_t *length, size_t capacity);

// A text built piece by piece behind the `length` characters that the buffer holds already. It
// stays below `capacity` characters, and a NUL follows it. Once a piece doesn't fit, nothing is
// appended any more.
class text_appender {
public:
    text_appender(char *buffer, size_t *length, size_t capacity)
        : buffer_(buffer), length_(length), capacity_(capacity) {}

    void append(std::string_view piece);
    void number(int64_t value); // in decimal
    int result() const { return full_ ? -1 : 0; }

private:
    char *buffer_;
    size_t *length_;
    size_t capacity_;
    bool full_ = false;
};

// The number at the start of a text, as atoi reads it: white space, a sign, digits; 0 when there
// are none. What doesn't fit becomes the nearest number that does.
int64_t leading_decimal(std::string_view text);

bool equals_ignoring_case(std::string_view a, std::string_view b);
bool contains_ignoring_case(std::string_view text, std::string_view part);
// The same of a text that is in lower case already, of at most 255 bytes; in linear time.
bool lower_case_contains(std::string_view lower_case_text, std::string_view part);
