// How a run of avwatch ends.
#pragma once

#include "shared/failure.h"

namespace avwatch {

using no_watch = nobody_there;

} // namespace avwatch
