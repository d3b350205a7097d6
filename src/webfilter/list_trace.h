// The log of a search for a domain on a policy's lists.
//
// The index decides at once (policy_index.h). Whoever reads the log wants to know which patterns
// stood before the one that decided, so they are said as a search from the first white one on would
// have come to them.
#pragma once

#include "webfilter/records/web_policy.h"

// `decided` is the number of the pattern that decided, or NO_PATTERN. Nothing while debugging is
// off.
void trace_list_search(const web_policy &policy, int decided);
