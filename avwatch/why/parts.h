// The parts of a document, and of the port-service file, that can decide what becomes of a flow, by
// their places, and the document and the file without some of them.
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
    PORT_LINE,   // of the port-service file, like an application
};

struct part {
    part_kind kind;
    size_t record;   // of its table, or the line of the file, from 0
    size_t item = 0; // of the record, from 0; 0 where the record itself is meant

    auto operator<=>(const part &) const = default;
};

// "/policies/0/rules/3"; of a line of the port-service file nothing.
std::string path_of(const part &place);

// Whether the document mentions the table that parts of this kind stand in.
bool has_table_of(part_kind kind, const jornctl::document &said);

// Those of a kind are in the order of their places.
using part_set = std::set<part>;

// A carrier goes with all records of its name, which are one to the daemon.
jornctl::document without(const jornctl::document &whole, const part_set &gone);
// Of the port-service file; the other lines keep their numbers.
std::string without_lines(const std::string &text, const part_set &gone);

// Where a part of what is left stands in the whole.
part place_in_whole(part left, const part_set &gone);

} // namespace avwatch
