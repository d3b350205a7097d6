// avcore's command line.
#pragma once

#include <optional>
#include <string>

namespace avcore {

struct options {
    std::string out_interface;
    std::string file; // one of these two is set
    std::string in_interface;
    std::string config; // may be empty
    bool json = false;
};

// Returns nothing after having printed the help or what is wrong; `status` is then the exit status.
std::optional<options> parse_options(int argc, char **argv, int &status);

} // namespace avcore
