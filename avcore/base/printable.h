// What is printed of texts that others chose: names from the traffic, keys of a file.
#pragma once

#include <string>
#include <string_view>

namespace avcore {

// A question mark for every byte that isn't a printable ASCII character.
std::string printable(std::string_view text);

} // namespace avcore
