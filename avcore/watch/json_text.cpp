#include "avcore/watch/json_text.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>

namespace avcore {
namespace {

constexpr std::string_view REPLACEMENT = "\xEF\xBF\xBD"; // U+FFFD

uint8_t byte_at(std::string_view text, size_t at) {
    return at < text.size() ? static_cast<uint8_t>(text[at]) : uint8_t{0};
}

// The length of the sequence of UTF-8 at the beginning; 0: it is none (RFC 3629, 4).
size_t utf8_length(std::string_view text) {
    const uint8_t lead = byte_at(text, 0);
    const uint8_t second = byte_at(text, 1);
    const auto continues = [&](size_t at) { return (byte_at(text, at) & 0xC0) == 0x80; };
    if (lead < 0x80)
        return 1;
    if (lead >= 0xC2 && lead <= 0xDF)
        return continues(1) ? 2 : 0;
    if (lead >= 0xE0 && lead <= 0xEF) {
        const bool in_range = (lead != 0xE0 || second >= 0xA0) && (lead != 0xED || second < 0xA0);
        return in_range && continues(1) && continues(2) ? 3 : 0;
    }
    if (lead >= 0xF0 && lead <= 0xF4) {
        const bool in_range = (lead != 0xF0 || second >= 0x90) && (lead != 0xF4 || second < 0x90);
        return in_range && continues(1) && continues(2) && continues(3) ? 4 : 0;
    }
    return 0;
}

// Most texts are of nothing else.
bool is_plain(char c) {
    return c >= ' ' && c < 0x7F && c != '"' && c != '\\';
}

// What a terminal could take for an order.
bool is_control(std::string_view sequence) {
    const uint8_t lead = byte_at(sequence, 0);
    return lead < ' ' || lead == 0x7F || (lead == 0xC2 && byte_at(sequence, 1) < 0xA0);
}

void append_escaped(std::string &out, uint8_t code) {
    char text[8];
    snprintf(text, sizeof text, "\\u%04x", unsigned{code});
    out += text;
}

} // namespace

void append_json_text(std::string &out, std::string_view text) {
    out += '"';
    while (!text.empty()) {
        const auto other = std::ranges::find_if_not(text, is_plain);
        out.append(text.begin(), other);
        text.remove_prefix(static_cast<size_t>(other - text.begin()));
        if (text.empty())
            break;
        const size_t length = utf8_length(text);
        const std::string_view sequence = text.substr(0, length);
        if (length == 0)
            out += REPLACEMENT;
        else if (is_control(sequence))
            append_escaped(out, byte_at(sequence, length - 1)); // of C1's the code is the last byte
        else if (sequence == "\"" || sequence == "\\")
            (out += '\\') += sequence;
        else
            out += sequence;
        text.remove_prefix(length == 0 ? 1 : length);
    }
    out += '"';
}

std::string &json_object::key(std::string_view name) {
    if (!empty_)
        out_ += ',';
    empty_ = false;
    out_ += '"';
    out_ += name;
    return out_ += "\":";
}

void json_object::add(const char *name, std::string_view text) {
    append_json_text(key(name), text);
}

void json_object::add(const char *name, bool value) {
    key(name) += value ? "true" : "false";
}

void json_object::add_pair(const char *name, uint64_t first, uint64_t second) {
    append_number(key(name) += '[', first);
    append_number(out_ += ',', second);
    out_ += ']';
}

} // namespace avcore
