#include "jornctl/base/complain.h"

#include "jornctl/base/printable.h"

#include <iostream>

namespace jornctl {

void complain(std::string line) {
    constexpr size_t shown_max = 1'000;
    if (line.size() > shown_max)
        line.replace(shown_max, std::string::npos, "...");
    std::cerr << "jornctl: " << printable(line) << '\n';
}

void complain_of(const std::vector<std::string> &all, const std::string &beginning) {
    for (const std::string &each : all)
        complain(beginning + each);
}

} // namespace jornctl
