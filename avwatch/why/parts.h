// The parts of a document that can decide what becomes of a flow, by their places in it, and the
// document without some of them.
#pragma once

#include "jornctl/documents/documents.h"

#include <compare>
#include <cstddef>
#include <set>
#include <string>

namespace avwatch {

enum class part_kind {
    RULE,          // of an ARC policy
    WHITE_PATTERN, // of a web policy
    BLACK_PATTERN,
    CATEGORY,
    CARRIER,     // of Wi-Fi calling
    APPLICATION, // that the administrator defined: it names, and decides by that
};

struct part {
    part_kind kind;
    size_t record;   // of its table, from 0
    size_t item = 0; // of the record, from 0; 0 where the record itself is meant

    auto operator<=>(const part &) const = default;
};

// "/policies/0/rules/3".
std::string path_of(const part &place);

// Whether the document mentions the table that parts of this kind stand in.
bool has_table_of(part_kind kind, const jornctl::document &said);

// Those of a kind are in the order of their places.
using part_set = std::set<part>;

// A carrier goes with all records of its name, which are one to the daemon.
jornctl::document without(const jornctl::document &whole, const part_set &gone);

// Where a part of what is left stands in the whole.
part place_in_whole(part left, const part_set &gone);

} // namespace avwatch
