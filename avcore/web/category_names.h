// Web categories by number or by name, as users write them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace avcore {

// A whole number from 1 or a name, in any letter case. 0 is no category that a domain could have.
std::optional<uint16_t> category_number(std::string_view text);

// Several of them behind each other, divided by blanks or commas; a name may hold blanks. Throws
// config_error.
std::vector<uint16_t> category_numbers(std::string_view text);

// For messages: that the text is none; and "category 69 (Advertising)", or without a name where it
// has none.
std::string no_category(std::string_view text);
std::string category_text(uint32_t number);

} // namespace avcore
