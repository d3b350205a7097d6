// Text from elsewhere on its way to a terminal, in UTF-8. Some characters are orders to it, others
// make it put what stands beside them in another order, and a name is whatever somebody said.
#pragma once

#include <string>
#include <string_view>

namespace avwatch {

// `text` with a question mark for each byte that isn't UTF-8 and each character that isn't seen
// (controls, line ends, direction and other format characters, private ones). Where it holds
// letters of a right-to-left script, left-to-right marks enclose it: the letters stand as they are
// read, and nothing beside the text changes its place.
std::string shown_text(std::string_view text);

// How many columns a shown text takes: one for each character but the marks. A terminal may give
// some characters two or none.
size_t columns_of(std::string_view shown);

} // namespace avwatch
