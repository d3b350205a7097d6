// Text from elsewhere on its way to a terminal, which takes some bytes for orders.
#pragma once

#include <string>
#include <string_view>

namespace jornctl {

// `text` with a question mark for each control character, those of `kept` excepted. The C1 controls
// count in the form that UTF-8 gives them.
std::string printable(std::string_view text, std::string_view kept = {});

} // namespace jornctl
