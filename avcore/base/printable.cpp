#include "avcore/base/printable.h"

#include <algorithm>

namespace avcore {

std::string printable(std::string_view text) {
    std::string result(text);
    std::replace_if(
        result.begin(), result.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return result;
}

} // namespace avcore
