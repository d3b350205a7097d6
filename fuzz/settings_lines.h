// What the targets of TOML files have in common: the lines that a refusal or a warning is.
#pragma once

#include "demand.h"

#include <algorithm>
#include <string>
#include <string_view>

// Each names the file, and nothing in it steers a terminal.
inline void check_lines(std::string_view lines, const std::string &file) {
    demand(!lines.empty());
    while (!lines.empty()) {
        const std::string_view line = lines.substr(0, lines.find('\n'));
        demand(line.starts_with(file + ", line ") || line.starts_with(file + ": "));
        demand(std::ranges::none_of(line, [](unsigned char c) { return c < 0x20 || c == 0x7F; }));
        lines.remove_prefix(std::min(line.size() + 1, lines.size()));
    }
}
