#include "avcore/config_text.h"

#include "avcore/config.h"
#include "unique_fd.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>

namespace avcore {

std::string read_config_text(const std::string &path, size_t limit) {
    const unique_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string text(limit + 1, '\0');
    size_t size = 0;
    ssize_t count = file.valid() ? 1 : -1;
    while (count > 0 && size < text.size()) {
        count = read(file.get(), text.data() + size, text.size() - size);
        size += static_cast<size_t>(std::max<ssize_t>(count, 0));
    }
    if (count < 0)
        throw config_error(path + ": " + strerror(errno));
    if (size > limit)
        throw config_error(path + ": longer than " + std::to_string(limit) + " bytes");
    text.resize(size);
    return text;
}

void refuse_deep_keys(std::string_view text, const std::string &name) {
    for (size_t line = 1; !text.empty(); ++line) {
        const std::string_view current = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(current.size() + 1, text.size()));
        if (std::count(current.begin(), current.end(), '.') >
            static_cast<std::ptrdiff_t>(MAX_DOTS_A_LINE))
            throw config_error(name + ", line " + std::to_string(line) + ": more than " +
                               std::to_string(MAX_DOTS_A_LINE) + " dots");
    }
}

} // namespace avcore
