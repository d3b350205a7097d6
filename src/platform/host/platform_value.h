// Platform values: what the platform knows under a key (op 36 of the AV channel).
#pragma once

#include <string_view>

inline constexpr unsigned PLATFORM_KEY_SIZE = 64;
inline constexpr unsigned PLATFORM_VALUE_SIZE = 128;

// Reads the value of `key` as text into `value`. Returns false when the platform has none or
// doesn't answer: the caller's default holds.
bool read_platform_value(std::string_view key, char (&value)[PLATFORM_VALUE_SIZE]);
