// How much of the names in a flow is shown: as much as the history keeps.
#pragma once

#include "avwatch/client/records.h"
#include "avwatch/history/application_names.h"

namespace avwatch {

flow_record with_names(flow_record flow, names_kept names);

} // namespace avwatch
