// Names of hosts and interfaces that are used as they are: as keys, as paths, in a resolver's
// files.
#pragma once

#include <string>
#include <string_view>

namespace avcore {

// Letters, digits and "._-", without a leading "." and not empty: such a name leads out of no
// folder, is no hidden file, and is one word in any file.
bool is_host_text(std::string_view text);

std::string lower_case(std::string_view text);

} // namespace avcore
