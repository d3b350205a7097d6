// Platform values: what the platform knows under a key (op 36 of the AV channel).
#pragma once

#include "platform/host/av_messages.h"

#include <string_view>

using platform_value = char[sizeof(av_value_answer)];

// Reads the value of `key` as text into `value`. Returns false when the platform has none or
// doesn't answer: the caller's default holds.
bool read_platform_value(std::string_view key, platform_value &value);
