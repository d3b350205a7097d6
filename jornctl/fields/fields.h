// Records in documents, described by rows: one row for each key, and nothing else says what a
// record takes. From the same rows come its reading, its words and its part of the JSON Schema.
//
//   constexpr field<arc_rule> RULE_FIELDS[] = {
//       {"app_id", at<&arc_rule::app_id, number<>>},
//       {"app_name", at<&arc_rule::app_name, file_text<POLICY_FILE, 1>>, REQUIRED},
//
// A row names the key and how its value and the record become each other: `at` ties one member to a
// kind of value (values.h; lists and records below are kinds, too), and what spans several members
// is a binding of its own.
#pragma once

#include "jornctl/fields/values.h"

#include <iterator>
#include <optional>
#include <vector>

namespace jornctl {

enum presence : bool { OPTIONAL, REQUIRED };

// How a key's value and a record become each other; see values.h.
template <typename Record>
struct binding {
    void (*read)(const node &from, Record &to);
    ordered_json (*words)(const Record &from); // null: the record says nothing of it
    ordered_json (*schema)();
};

template <typename Record>
struct field {
    const char *key;
    binding<Record> value;
    presence needed = OPTIONAL;
    const char *about = "";      // for the author of a document, where the key doesn't say it
    const char *needs = nullptr; // the key without which this one has no meaning
};

template <typename>
struct member_traits;
template <typename Record, typename Member>
struct member_traits<Member Record::*> {
    using record = Record;
    using member = Member;
};

template <auto Member, typename Kind>
inline constexpr binding<typename member_traits<decltype(Member)>::record> at = {
    [](const node &from, auto &to) { Kind::read(from, to.*Member); },
    [](const auto &from) -> ordered_json { return Kind::words(from.*Member); },
    []() -> ordered_json {
        return Kind::template schema<typename member_traits<decltype(Member)>::member>();
    },
};

// What the rows' keys make of an object, whatever the record.
struct key_rule {
    const char *key;
    presence needed;
    const char *needs;
};
void check_keys(const node &from, const std::vector<key_rule> &rules);
void check_array(const node &from, size_t most);
// Zero, empty or null: what a record holds that nobody filled.
bool says_nothing(const ordered_json &words);
ordered_json array_schema(ordered_json elements, size_t most);
void require_keys(ordered_json &schema, const std::vector<key_rule> &rules);

// The first slots of an array; how many, another member says.
template <auto Count, auto Slots, typename Kind>
inline constexpr binding<typename member_traits<decltype(Slots)>::record> counted = {
    [](const node &from, auto &to) {
        auto &slots = to.*Slots;
        check_array(from, std::size(slots));
        for (size_t i = 0; i < from.value.size(); ++i)
            from.attempt([&] { Kind::read(from.at(i), slots[i]); });
        to.*Count = static_cast<typename member_traits<decltype(Count)>::member>(from.value.size());
    },
    [](const auto &from) {
        const auto &slots = from.*Slots;
        ordered_json said = ordered_json::array();
        for (size_t i = 0; i < std::size(slots) && std::cmp_less(i, from.*Count); ++i)
            said.push_back(Kind::words(slots[i]));
        return said;
    },
    []() -> ordered_json {
        using array = typename member_traits<decltype(Slots)>::member;
        return array_schema(Kind::template schema<std::remove_extent_t<array>>(),
                            std::extent_v<array>);
    },
};

template <typename Record>
std::vector<key_rule> key_rules(std::span<const field<Record>> rows) {
    std::vector<key_rule> rules;
    for (const field<Record> &row : rows)
        rules.push_back({row.key, row.needed, row.needs});
    return rules;
}

// A record, described by an array of rows.
template <const auto &Rows>
struct record {
    template <typename Record>
    using row_span = std::span<const field<Record>>;

    // In the order of the rows, not the document's, so that one may build on another. What can't be
    // read is a mistake of the document and stays zero.
    template <typename Record>
    static void read(const node &from, Record &to) {
        check_keys(from, key_rules(row_span<Record>(Rows)));
        to = {};
        for (const field<Record> &row : Rows) {
            if (from.has(row.key))
                from.attempt([&] { row.value.read(from.at(row.key), to); });
        }
    }

    template <typename Record>
    static ordered_json words(const Record &from) {
        ordered_json said = ordered_json::object();
        for (const field<Record> &row : Rows) {
            ordered_json value = row.value.words(from);
            if (row.needed == REQUIRED || !says_nothing(value))
                said[row.key] = std::move(value);
        }
        return said;
    }

    template <typename Record>
    static ordered_json schema() {
        ordered_json properties = ordered_json::object();
        for (const field<Record> &row : Rows) {
            ordered_json &property = properties[row.key] = row.value.schema();
            if (*row.about != '\0')
                property["description"] = row.about;
        }
        ordered_json schema = {{"type", "object"}, {"properties", std::move(properties)}};
        require_keys(schema, key_rules(row_span<Record>(Rows)));
        return schema;
    }
};

// What a std::optional holds; its absence in the document is its absence there.
template <typename Kind>
struct maybe {
    template <typename T>
    static void read(const node &from, std::optional<T> &to) {
        Kind::read(from, to.emplace());
    }
    template <typename T>
    static ordered_json words(const std::optional<T> &from) {
        return from ? Kind::words(*from) : ordered_json();
    }
    template <typename Optional>
    static ordered_json schema() {
        return Kind::template schema<typename Optional::value_type>();
    }
};

// The elements of a std::vector.
template <typename Kind, size_t Most>
struct list {
    template <typename T>
    static void read(const node &from, std::vector<T> &to) {
        check_array(from, Most);
        for (size_t i = 0; i < from.value.size(); ++i)
            from.attempt([&] { Kind::read(from.at(i), to.emplace_back()); });
    }
    template <typename T>
    static ordered_json words(const std::vector<T> &from) {
        ordered_json said = ordered_json::array();
        for (const T &element : from)
            said.push_back(Kind::words(element));
        return said;
    }
    template <typename Vector>
    static ordered_json schema() {
        return array_schema(Kind::template schema<typename Vector::value_type>(), Most);
    }
};

// The slots of an array in a record, filled from the first one on. Slots that are all zero are
// free.
template <typename Kind>
struct slots {
    template <typename T, size_t N>
    static void read(const node &from, T (&to)[N]) {
        check_array(from, N);
        for (size_t i = 0; i < from.value.size(); ++i)
            from.attempt([&] { Kind::read(from.at(i), to[i]); });
    }
    template <typename T, size_t N>
    static ordered_json words(const T (&from)[N]) {
        static constexpr T FREE = {};
        ordered_json said = ordered_json::array();
        for (const T &slot : from) {
            if (memcmp(&slot, &FREE, sizeof slot) != 0)
                said.push_back(Kind::words(slot));
        }
        return said;
    }
    template <typename Array>
    static ordered_json schema() {
        return array_schema(Kind::template schema<std::remove_extent_t<Array>>(),
                            std::extent_v<Array>);
    }
};

} // namespace jornctl
