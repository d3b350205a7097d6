// What only shows when a document's records are seen together.
#pragma once

#include "jornctl/base/json.h"
#include "jornctl/documents/documents.h"

namespace jornctl {

// Finds mistakes where one record would hide another: the daemon takes the first policy with a
// uuid, the last policy of a UTP, and a UTP entry in place of the one that a policy made. Adds
// warnings for what the daemon takes and then makes no, or surprising, use of.
// `written` is the document that was read.
void check_across(document &read, const node &written, const platform_facts &around);

} // namespace jornctl
