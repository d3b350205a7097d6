#include "avcore/base/config_text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace avcore {

unique_fd open_config(const std::string &path) {
    unique_fd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status = {};
    if (!file.valid() || fstat(file.get(), &status) != 0)
        throw config_error(path + ": " + strerror(errno));
    if (!S_ISREG(status.st_mode))
        throw config_error(path + ": isn't a regular file");
    return file;
}

std::string read_config_text(const std::string &path, size_t limit) {
    const unique_fd file = open_config(path);
    std::string text(limit + 1, '\0');
    size_t size = 0;
    ssize_t count = 1;
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
