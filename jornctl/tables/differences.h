// What differs between two states of the tables, by the names of records and in the words of
// documents.
#pragma once

#include "jornctl/base/json.h"
#include "jornctl/tables/daemon_tables.h"

#include <string>
#include <vector>

namespace jornctl {

struct difference {
    char sign;         // + new, - gone, ~ changed
    const char *table; // its key in documents
    const char *kind;  // what a record of it is called: "policy"
    std::string name;
    ordered_json before; // null for a new record
    ordered_json after;  // null for one that goes
};

// Of a table whose records only changed places one difference tells: it has no name, and the orders
// of the names stand before and after. The order of bindings decides nothing.
std::vector<difference> differences(const daemon_tables &before, const daemon_tables &after);

// As lines: one for each record that is new or gone, one for each part that changed of the others.
std::vector<std::string> lines_of(const difference &found);
ordered_json json_of(const std::vector<difference> &found);

} // namespace jornctl
