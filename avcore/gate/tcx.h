// The gate's programs in the lists that an interface has of programs since Linux 6.6 (tcx). They
// run one after the other, until one says more than "next", and before the filters of clsact; the
// gate goes to the front. What others attached has no number to be known by, so the gate's programs
// are told by their names. Attached for themselves, by no link, they stay when nobody holds them.
// Everything throws std::runtime_error with a reason for the user.
#pragma once

#include "avcore/gate/tc_program.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace avcore {

bool has_tcx(unsigned if_index); // the kernel
// Their ids, in the order in which they run; none where the kernel has no tcx.
std::vector<uint32_t> tcx_programs(unsigned if_index, tc_side side);

std::optional<tc_program> tcx_gate(const std::string &pins, unsigned if_index, tc_side side);
// In the place of an older one.
void attach_to_tcx(const std::string &pins, unsigned if_index, tc_side side, int program_fd);
void detach_from_tcx(const std::string &pins, unsigned if_index, tc_side side);

} // namespace avcore
