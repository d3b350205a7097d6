// Fields of records in documents. A record's table has a row for each key: the key, what reads its
// value into the record's member, whether the record can do without, and the bounds.
//
// Readers throw refused with the path of the value. They are templates over the member, so that its
// type and place come from the record itself; the bounds of a row can only narrow what fits there.
#pragma once

#include "jornctl/json.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <span>
#include <string>
#include <vector>

namespace jornctl {

enum presence : bool { OPTIONAL, REQUIRED };

template <typename Record>
struct field {
    const char *key;
    void (*read)(const node &from, const field &row, Record &to);
    presence needed;
    // Of the number, or of the text's length in bytes.
    uint32_t min = 0;
    uint32_t max = std::numeric_limits<uint32_t>::max();
};

// Values without a record; each throws refused where the node holds something else.
uint32_t number_in(const node &from, uint32_t min, uint32_t max);
bool flag_in(const node &from); // true or false; 1 and 0, as the daemon prints them, too
std::string string_in(const node &from);
std::string text_in(const node &from, size_t min, size_t max);
uint8_t word_number(const node &from, std::span<const char *const> words);
// What the daemon's files have room for between two separators, and give back as it was.
void check_file_text(const node &from, std::string_view text);
// An object with no other keys than these.
void check_keys(const node &from, std::span<const char *const> keys);
void check_array(const node &from, size_t most);

template <typename>
struct member_traits;
template <typename Record, typename Member>
struct member_traits<Member Record::*> {
    using record = Record;
    using member = Member;
};
template <auto Member>
using record_of = typename member_traits<decltype(Member)>::record;
template <auto Member>
using type_of = typename member_traits<decltype(Member)>::member;

template <auto Member>
void read_number(const node &from, const field<record_of<Member>> &row, record_of<Member> &to) {
    constexpr uint32_t FITS = std::numeric_limits<type_of<Member>>::max();
    to.*Member = static_cast<type_of<Member>>(number_in(from, row.min, std::min(row.max, FITS)));
}

template <auto Member>
void read_flag(const node &from, const field<record_of<Member>> &, record_of<Member> &to) {
    to.*Member = flag_in(from);
}

template <auto Member, const auto &Words>
void read_word(const node &from, const field<record_of<Member>> &, record_of<Member> &to) {
    to.*Member = word_number(from, Words);
}

template <auto Member>
void read_text(const node &from, const field<record_of<Member>> &row, record_of<Member> &to) {
    constexpr size_t FITS = sizeof(type_of<Member>) - 1; // a NUL ends it
    const std::string text = text_in(from, row.min, std::min<size_t>(row.max, FITS));
    text.copy(to.*Member, text.size());
}

template <auto Member>
void read_file_text(const node &from, const field<record_of<Member>> &row, record_of<Member> &to) {
    read_text<Member>(from, row, to);
    check_file_text(from, to.*Member);
}

// Rows are read in the table's order, not the document's, so that one may build on another.
template <typename Record>
Record read_record(const node &from, std::span<const field<Record>> rows) {
    std::vector<const char *> keys;
    for (const field<Record> &row : rows)
        keys.push_back(row.key);
    check_keys(from, keys);
    Record to = {};
    for (const field<Record> &row : rows) {
        if (from.has(row.key))
            row.read(from.at(row.key), row, to);
        else if (row.needed == REQUIRED)
            from.refuse(std::string("has no ") + row.key);
    }
    return to;
}

template <typename Record>
std::vector<Record> read_records(const node &from, std::span<const field<Record>> rows,
                                 size_t most) {
    check_array(from, most);
    std::vector<Record> read;
    for (size_t i = 0; i < from.value.size(); ++i)
        read.push_back(read_record<Record>(from.at(i), rows));
    return read;
}

} // namespace jornctl
