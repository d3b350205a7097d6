// What parts the words of a line; the last of them is what editors leave at its end.
#pragma once

#include <string_view>

namespace avcore {

constexpr std::string_view BLANKS = " \t\r";

} // namespace avcore
