#include "avwatch/base/complain.h"

#include "avwatch/base/shown_text.h"

#include <iostream>

namespace avwatch {

void complain(std::string line) {
    constexpr size_t shown_max = 1'000;
    if (line.size() > shown_max)
        line.replace(shown_max, std::string::npos, "...");
    std::cerr << "avwatch: " << shown_text(line) << '\n';
}

} // namespace avwatch
