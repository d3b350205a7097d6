// Platform values: what the platform knows under a key (op 36 of the AV channel).
#pragma once

#include "platform/host/messages/av_messages.h"

#include <string_view>

using platform_value = char[sizeof(av_value_answer)];

// Reads the value of `key` as text into `value`. Returns false when the platform has none or
// doesn't answer: the caller's default holds. The keys `mem_support` and `avc_enable/...` together
// wait for two seconds at most in a process's life and have no value after that.
bool read_platform_value(std::string_view key, platform_value &value);
