// A record as text, which JSON carries at less cost than as a list of numbers.
#pragma once

#include <array>
#include <charconv>
#include <cstring>
#include <string>
#include <string_view>

template <typename T>
std::string to_hex(const T &record) {
    std::array<unsigned char, sizeof record> bytes;
    memcpy(bytes.data(), &record, sizeof record);
    std::string text;
    for (const unsigned char byte : bytes) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

template <typename T>
void from_hex(std::string_view text, T &record) {
    std::array<unsigned char, sizeof record> bytes = {};
    for (size_t i = 0; i < bytes.size(); ++i)
        std::from_chars(&text.at(2 * i), &text.at(2 * i) + 2, bytes[i], 16);
    memcpy(&record, bytes.data(), sizeof record);
}
