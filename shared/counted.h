// How many of what, in words: "1 flow", "2 flows".
#pragma once

#include <cstdint>
#include <string>

inline std::string counted(uint64_t count, const char *one, const char *more) {
    return std::to_string(count) + ' ' + (count == 1 ? one : more);
}
