// The gate's compiled program, part of this one.
#pragma once

#include <cstddef>

namespace avcore {

extern const unsigned char GATE_OBJECT[];
extern const size_t GATE_OBJECT_SIZE;

} // namespace avcore
