// JSON (RFC 8259) as text, written member by member: rows are many, and a tree for each would cost
// more than all else about them.
#pragma once

#include <charconv>
#include <concepts>
#include <cstdint>
#include <iterator>
#include <limits>
#include <string>
#include <string_view>

namespace avcore {

// Appends the text in quotes. Bytes that aren't UTF-8 are replaced by U+FFFD, control characters
// (C1's and DEL, too) escaped.
void append_json_text(std::string &out, std::string_view text);

void append_number(std::string &out, std::integral auto number) {
    char digits[std::numeric_limits<decltype(number)>::digits10 + 2];
    out.append(digits, std::to_chars(std::begin(digits), std::end(digits), number).ptr);
}

// An object at the end of `out`, which outlives it.
class json_object {
public:
    explicit json_object(std::string &out) : out_(out) { out_ += '{'; }
    ~json_object() { out_ += '}'; }
    json_object(const json_object &) = delete;
    json_object &operator=(const json_object &) = delete;

    void add(const char *name, std::string_view text);
    void add(const char *name, const char *text) { add(name, std::string_view(text)); }
    void add(const char *name, const std::string &text) { add(name, std::string_view(text)); }
    void add(const char *name, bool value);
    void add(const char *name, std::integral auto number) { append_number(key(name), number); }
    void add_pair(const char *name, uint64_t first, uint64_t second);

    // The value has to be appended to the text next. The name is one that needs no escape.
    std::string &key(std::string_view name);

private:
    std::string &out_;
    bool empty_ = true;
};

} // namespace avcore
