// What avcore knows of the flow that is asked about: one that is in its table, or one that isn't
// yet.
#pragma once

#include "avwatch/settings/settings.h"
#include "avwatch/why/facts.h"

namespace avwatch {

// Throws no_watch and refused.
flow_facts facts_from_avcore(const why_settings &asked, const invocation &around);

} // namespace avwatch
