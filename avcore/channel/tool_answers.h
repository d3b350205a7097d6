// Answers to what tools ask on the AV channel.
#pragma once

#include "avcore/base/messages.h"
#include "avcore/engine/dpi.h"
#include "avcore/settings/config.h"

namespace avcore {

// -1 to a question that no tool asks either. `engine` is null where it is switched off.
std::vector<std::byte> answer_tool(const dpi_engine *engine, const config &settings,
                                   const question &asked);

} // namespace avcore
