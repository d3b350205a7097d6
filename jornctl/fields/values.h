// Kinds of values in documents. A kind is a type with three functions over a member of a record:
//
//   read(from, to)   from JSON into the member; throws refused with the path of the value
//   words(from)      the member as JSON again; the bare number where the kind has no word for it
//   schema<T>()      what read takes for a member of type T, as JSON Schema
//
// What a kind is given (bounds, words, a file's format) narrows what the member itself can hold. A
// schema says less than read where JSON Schema can't: it counts characters, not bytes, and
// takes 1.0 for a whole number.
#pragma once

#include "jornctl/base/json.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <limits>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace jornctl {

// A word that stands for a number.
struct named_number {
    const char *word;
    uint32_t number;
};

// Words whose order is the number.
template <size_t N>
constexpr std::array<named_number, N> numbered(const char *const (&words)[N]) {
    std::array<named_number, N> named = {};
    for (uint32_t i = 0; i < N; ++i)
        named[i] = {words[i], i};
    return named;
}

// What the lines of a file of the daemon make of some texts.
struct file_format {
    std::string (*separators)();
    // Lines that end a block, wherever they stand in a line and in whatever letter case.
    std::span<const std::string_view> markers;
    bool trims; // blanks at either end of a text go
};

std::string string_in(const node &from);
// `remedy` is said of what is too large, or no whole number.
int64_t number_in(const node &from, int64_t min, int64_t max, const char *remedy = "");
ordered_json number_schema(int64_t min, int64_t max);
bool flag_in(const node &from); // true or false; 1 and 0, as the daemon prints them, too
ordered_json flag_words(uint32_t from);
ordered_json flag_schema();
uint32_t word_in(const node &from, std::span<const named_number> words);
// The word, or the number that has none, or none of its own: a device's categories may share one.
ordered_json word_for(uint32_t number, std::span<const named_number> words);
ordered_json words_schema(std::span<const named_number> words);
bool is_word(const node &from, std::span<const named_number> words);
[[noreturn]] void refuse_number_or_word(const node &from, int64_t min, int64_t max,
                                        std::span<const named_number> words);
uint32_t address_in(const node &from); // of IPv4, in network byte order
ordered_json address_words(uint32_t address_be);
ordered_json address_schema();
// `format` is null for what no file keeps; else the text comes back from the file as it was.
std::string text_in(const node &from, size_t min, size_t max, const file_format *format);
ordered_json text_schema(size_t min, size_t max, const file_format *format);

template <int64_t Min = std::numeric_limits<int64_t>::min(),
          int64_t Max = std::numeric_limits<int64_t>::max()>
struct number {
    template <typename T>
    static constexpr int64_t LEAST = std::max<int64_t>(Min, std::numeric_limits<T>::min());
    template <typename T>
    static constexpr int64_t MOST = std::min<int64_t>(Max, std::numeric_limits<T>::max());

    template <typename T>
    static void read(const node &from, T &to) {
        to = static_cast<T>(number_in(from, LEAST<T>, MOST<T>));
    }
    template <typename T>
    static ordered_json words(const T &from) {
        return from;
    }
    template <typename T>
    static ordered_json schema() {
        return number_schema(LEAST<T>, MOST<T>);
    }
};

struct flag {
    template <typename T>
    static void read(const node &from, T &to) {
        to = flag_in(from);
    }
    template <typename T>
    static ordered_json words(const T &from) {
        return flag_words(from);
    }
    template <typename>
    static ordered_json schema() {
        return flag_schema();
    }
};

// One of an array of named_number.
template <const auto &Words>
struct word {
    template <typename T>
    static void read(const node &from, T &to) {
        to = static_cast<T>(word_in(from, Words));
    }
    template <typename T>
    static ordered_json words(const T &from) {
        return word_for(from, Words);
    }
    template <typename>
    static ordered_json schema() {
        return words_schema(Words);
    }
};

template <const auto &Words, typename Number = number<>>
struct number_or_word {
    template <typename T>
    static void read(const node &from, T &to) {
        if (is_word(from, Words))
            to = static_cast<T>(word_in(from, Words));
        else if (from.value.is_string())
            refuse_number_or_word(from, Number::template LEAST<T>, Number::template MOST<T>, Words);
        else
            Number::read(from, to);
    }
    template <typename T>
    static ordered_json words(const T &from) {
        return std::in_range<uint32_t>(from) ? word_for(static_cast<uint32_t>(from), Words)
                                             : ordered_json(from);
    }
    template <typename T>
    static ordered_json schema() {
        return {{"anyOf", {Number::template schema<T>(), words_schema(Words)}}};
    }
};

// An IPv4 address; none is 0.
struct address {
    template <typename T>
    static void read(const node &from, T &to) {
        to = address_in(from);
    }
    template <typename T>
    static ordered_json words(const T &from) {
        return address_words(from);
    }
    template <typename>
    static ordered_json schema() {
        return address_schema();
    }
};

// A NUL-terminated text in an array of char.
template <size_t Min = 0, size_t Max = std::numeric_limits<size_t>::max(),
          const file_format *Format = nullptr>
struct text {
    template <typename T>
    static constexpr size_t MOST = std::min(Max, sizeof(T) - 1);

    template <size_t N>
    static void read(const node &from, char (&to)[N]) {
        const std::string read = text_in(from, Min, MOST<char[N]>, Format);
        read.copy(to, read.size());
    }
    // Cut where the daemon cuts it when the NUL is missing.
    template <size_t N>
    static ordered_json words(const char (&from)[N]) {
        return std::string(from, strnlen(from, N - 1));
    }
    template <typename T>
    static ordered_json schema() {
        return text_schema(Min, MOST<T>, Format);
    }
};

template <const file_format &Format, size_t Min = 0,
          size_t Max = std::numeric_limits<size_t>::max()>
using file_text = text<Min, Max, &Format>;

} // namespace jornctl
