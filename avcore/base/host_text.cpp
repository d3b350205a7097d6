#include "avcore/base/host_text.h"

#include "core/text/text.h"

#include <algorithm>

namespace avcore {

bool is_host_text(std::string_view text) {
    return !text.empty() && text.front() != '.' &&
           std::all_of(text.begin(), text.end(), [](char c) {
               const char lower = ascii_lower(c);
               return (lower >= 'a' && lower <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
                      c == '_' || c == '-';
           });
}

std::string lower_case(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), ascii_lower);
    return result;
}

} // namespace avcore
