// A line of a saved file as a table of its fields: what reads it, what writes it and what checks a
// text before it is stored all use the one table.
//
// A field's place is its row's. Fields are divided by the format's separator, and the last is
// followed by ";" and a line feed. A row holds what is odd about its field in its reader and its
// writer; the common kinds are made by number_field, bits_field and text_field. A field that a line
// lacks leaves the record as it is; an empty one is read as an empty text.
//
// Writers also serve the check of what a command brought, so they trust no count of the record.
#pragma once

#include "core/text/fields.h"
#include "core/text/text.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

template <typename Record>
struct line_field {
    const char *name; // of the field, for those who report on it
    void (*read)(std::string_view text, Record &to);
    void (*write)(text_appender &to, const Record &from);
};

template <typename Record>
struct line_format {
    field_format split;
    std::span<const line_field<Record>> fields;
};

// Sets the record's fields from a line; what stands behind the last is not read. `seen` is called
// with each field's text and its position, from 1, before the field is set.
template <typename Record, typename Seen>
void read_line(std::string_view line, const line_format<Record> &format, Record &to, Seen seen) {
    field_splitter splitter(line, format.split);
    int position = 0;
    for (const line_field<Record> &field : format.fields) {
        std::string_view text;
        if (!splitter.next(text))
            return;
        seen(++position, text);
        field.read(text, to);
    }
}

template <typename Record>
void read_line(std::string_view line, const line_format<Record> &format, Record &to) {
    read_line(line, format, to, [](int, std::string_view) {});
}

template <typename Record>
void write_line(text_appender &to, const line_format<Record> &format, const Record &from) {
    for (size_t i = 0; i < format.fields.size(); ++i) {
        if (i != 0)
            to.append({&format.split.separator, 1});
        format.fields[i].write(to, from);
    }
    to.append(";\n");
}

// A list inside a field. How many items it has stands in a field before it.
struct list_format {
    char separator;
    bool closed = false;         // a separator follows the last item, too
    std::string_view empty = {}; // what is written for a list without items
};

// Calls take(index, item) for the items of the text, at most `count`. Items are not trimmed, and
// empty ones keep their place.
template <typename Take>
void read_list(std::string_view text, const list_format &format, size_t count, Take take) {
    field_splitter splitter(text, {format.separator});
    std::string_view item;
    for (size_t i = 0; i < count && splitter.next(item); ++i)
        take(i, item);
}

// Calls write(index) for each item, which appends it.
template <typename Write>
void write_list(text_appender &to, const list_format &format, size_t count, Write write) {
    if (count == 0)
        to.append(format.empty);
    for (size_t i = 0; i < count; ++i) {
        write(i);
        if (format.closed || i + 1 < count)
            to.append({&format.separator, 1});
    }
}

template <typename>
struct line_member;
template <typename Record, typename Member>
struct line_member<Member Record::*> {
    using record = Record;
    using type = Member;
};
template <auto Member>
using line_field_of = line_field<typename line_member<decltype(Member)>::record>;

// A number in decimal, cut to the member's width when it is read. One of 32 bits is written with
// its sign.
template <auto Member>
constexpr line_field_of<Member> number_field(const char *name) {
    using number = typename line_member<decltype(Member)>::type;
    return {
        name,
        [](std::string_view text, auto &to) {
            to.*Member = static_cast<number>(leading_decimal(text));
        },
        [](text_appender &to, const auto &from) { to.number(static_cast<int32_t>(from.*Member)); }};
}

// Some bits of a byte as a number: `Bits` takes them out and puts them in place. Reading sets bits
// only.
template <auto Member, auto Bits>
constexpr line_field_of<Member> bits_field(const char *name) {
    return {name,
            [](std::string_view text, auto &to) {
                to.*Member |= Bits.in_place(static_cast<uint8_t>(leading_decimal(text)));
            },
            [](text_appender &to, const auto &from) {
                to.number(static_cast<int32_t>(Bits.of(from.*Member)));
            }};
}

// A text, of which `Max` characters are kept on either way.
template <auto Member, size_t Max = sizeof(typename line_member<decltype(Member)>::type) - 1>
constexpr line_field_of<Member> text_field(const char *name) {
    static_assert(Max < sizeof(typename line_member<decltype(Member)>::type));
    return {name,
            [](std::string_view text, auto &to) { copy_text(to.*Member, text.substr(0, Max)); },
            [](text_appender &to, const auto &from) {
                to.append(field_text(from.*Member).substr(0, Max));
            }};
}
