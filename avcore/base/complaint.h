// What avcore says on standard error: each of its lines begins with the program's name.
#pragma once

#include <string>
#include <string_view>

namespace avcore {

inline std::string complaint(std::string_view lines) {
    std::string text;
    while (true) {
        const size_t end = lines.find('\n');
        text += "avcore: " + std::string(lines.substr(0, end)) + '\n';
        if (end == lines.npos)
            return text;
        lines.remove_prefix(end + 1);
    }
}

} // namespace avcore
