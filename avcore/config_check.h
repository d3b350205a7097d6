// `avcore --check`: what a start with this configuration would fail for.
#pragma once

#include "avcore/options.h"
#include "avcore/settings/config.h"

namespace avcore {

// Of a configuration that was read and completed; says it all on standard error, and returns the
// exit status.
int check_config(const options &options, const config &settings);

} // namespace avcore
