// The text of a configuration file, before anyone parses it: bounded in size and, of TOML, in how
// deep its tables can nest, for the parser recurses. Throws config_error.
//
// Files are read again beside running work. A FIFO would hold it up, a device never end; so only
// regular files, behind links, are opened.
#pragma once

#include "shared/unique_fd.h"

#include <stdexcept>
#include <string>
#include <string_view>

namespace avcore {

class config_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

inline constexpr size_t MAX_CONFIG_SIZE = size_t{1} << 20;
// A key stands on one line and a dot for each part but the first, and the parser itself bounds how
// often values nest.
inline constexpr size_t MAX_DOTS_A_LINE = 64;

unique_fd open_config(const std::string &path);
std::string read_config_text(const std::string &path, size_t limit = MAX_CONFIG_SIZE);
// `name` stands for the file in the message.
void refuse_deep_keys(std::string_view text, const std::string &name);

} // namespace avcore
