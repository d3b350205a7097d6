#include "jornctl/base/complain.h"

#include "jornctl/base/printable.h"

#include <iostream>
#include <utility>

namespace jornctl {
namespace {

std::string &speaker() {
    static std::string name = "jornctl";
    return name;
}

} // namespace

void complain_as(std::string program) {
    speaker() = std::move(program);
}

void complain(std::string line) {
    constexpr size_t shown_max = 1'000;
    if (line.size() > shown_max)
        line.replace(shown_max, std::string::npos, "...");
    std::cerr << speaker() << ": " << printable(line) << '\n';
}

void complain_of(const std::vector<std::string> &all, const std::string &beginning) {
    for (const std::string &each : all)
        complain(beginning + each);
}

} // namespace jornctl
