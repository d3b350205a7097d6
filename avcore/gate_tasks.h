// avcore's tasks about the gate beside a run.
#pragma once

#include "avcore/options.h"
#include "avcore/settings/config.h"

namespace avcore {

// Each returns the exit status, and throws std::runtime_error.
int set_up_gate(const options &options, const config &settings);
int tear_down_gate(const options &options);
int show_gate(const options &options);

} // namespace avcore
