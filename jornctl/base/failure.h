// How a run of jornctl ends.
#pragma once

#include "shared/failure.h"

namespace jornctl {

// Of a comparison, as other programs that compare have them.
inline constexpr int STATUS_DIFFERS = 1;
inline constexpr int STATUS_NOT_COMPARED = 2;

using no_daemon = nobody_there;

} // namespace jornctl
