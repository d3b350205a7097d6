// What somebody may have meant who mistyped a word.
#pragma once

#include <string>
#include <string_view>
#include <vector>

std::string joined(const std::vector<std::string> &words);

// ` (did you mean "WORD"?)` with the closest of the known words, or nothing where none is close.
std::string did_you_mean(std::string_view mistyped, const std::vector<std::string> &known);
