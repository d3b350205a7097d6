// From what the daemon has to what a document makes of it, by no more commands than that takes.
//
// What the tables come to is never in question: a shorter way is taken only where it leads to what
// all the commands of the document lead to, else they all are sent.
#pragma once

#include "jornctl/client/sending.h"
#include "jornctl/documents/documents.h"
#include "jornctl/tables/daemon_tables.h"

#include <vector>

namespace jornctl {

struct way {
    std::vector<command_group> groups; // in their order
    daemon_tables end;                 // what they leave
};

// Of all the document's commands.
way whole_way(const daemon_tables &from, const document &wanted);

// Of those that differ; no group where nothing does. Throws refused for a document that has
// mistakes.
way shortest_way(const daemon_tables &from, const document &wanted);

} // namespace jornctl
