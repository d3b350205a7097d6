// `avwatch why`: why a flow is blocked, or isn't.
#pragma once

#include "avwatch/settings/settings.h"
#include "avwatch/why/settings.h"

#include <vector>

namespace avwatch {

// Prints the answer. Returns the exit status: 0 the flow passes, 1 it is blocked, 2 nobody can say,
// which stands on standard error where something went wrong.
int explain(const why_settings &asked, const invocation &around);

// Of a flow that avcore knows: what would decide if that weren't there which does, and what makes
// this doubtful. May take seconds. Throws.
std::vector<labelled_text> what_else(const why_settings &asked, const invocation &around);

} // namespace avwatch
