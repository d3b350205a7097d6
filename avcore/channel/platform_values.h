// Op 36 of the AV channel: the platform's values, by key, as the TOML file gives them.
#pragma once

#include "avcore/base/messages.h"
#include "avcore/settings/config.h"

namespace avcore {

// The key that is asked for; empty when the question holds none.
std::string asked_key(const question &asked);

// A key without a value, or one that is no text, is answered with -1: the asker's default holds.
std::vector<std::byte> answer_platform_value(const config &settings, const question &asked);

} // namespace avcore
