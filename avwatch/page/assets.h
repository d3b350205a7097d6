// The page's files, which are part of the program (embed.cmake).
#pragma once

#include <span>
#include <string_view>

namespace avwatch {

struct asset {
    std::string_view path; // "/page.js"
    std::string_view type;
    std::string_view bytes;
};

std::span<const asset> assets();

} // namespace avwatch
