// Answers to what tools ask on the AV channel.
#pragma once

#include "avcore/base/messages.h"
#include "avcore/engine/dpi.h"
#include "avcore/settings/config.h"

#include <cstddef>
#include <string>
#include <vector>

namespace avcore {

// -1 to a question that no tool asks either. `engine` is null where it is switched off; `inputs`
// are the interfaces by which frames come.
std::vector<std::byte> answer_tool(const dpi_engine *engine, const config &settings,
                                   const std::vector<std::string> &inputs, const question &asked);

} // namespace avcore
