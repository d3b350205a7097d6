// avcore's command line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace avcore {

struct options {
    std::string out_interface;
    std::string file; // one of these two is set
    std::string in_interface;
    std::string config; // may be empty
    bool json = false;
    std::string categories;  // files and folders; empty: none
    std::string safe_search; //
    bool agent_down = false;
    std::optional<int64_t> agent_delay_ms;
    std::string command_socket = "/var/run/jorn.sock";
};

// Returns nothing after having printed the help or what is wrong; `status` is then the exit status.
std::optional<options> parse_options(int argc, char **argv, int &status);

} // namespace avcore
