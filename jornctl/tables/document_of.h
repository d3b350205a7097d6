// The document that says what the tables hold.
#pragma once

#include "jornctl/documents/documents.h"
#include "jornctl/tables/daemon_tables.h"

namespace jornctl {

// It has all tables, empty ones too, and no findings.
document document_of(const daemon_tables &tables);

// What a document makes of empty tables.
daemon_tables tables_of(const document &wanted);

// Whether the document makes the same tables, apart from a file that is behind. Some that documents
// left can't be said by one: a binding that lost its policy to "web_policies" alone still names it.
bool says_all(const document &said, const daemon_tables &tables);

} // namespace jornctl
