// avcore's command line.
#pragma once

#include "avcore/gate/gate.h"
#include "avcore/settings/config.h"

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace avcore {

enum class task {
    run,
    set_up_gate,
    tear_down_gate,
    show_gate,
    list_applications,
    check_config,
};

struct options {
    task wanted = task::run;
    std::string capture;       // to make; empty: the configuration says,
    std::string out_interface; // unless there is one to write into
    std::string file;          // one of these three is set, or the configuration says the last
    std::string in_interface;
    std::vector<std::string> gate_interfaces; // also of set_up_gate
    bool gate_nowhere_else = false;           // they are the configuration's, which has them all
    std::optional<attach_way> attach;         // the gate there
    std::string pins = GATE_PINS;
    std::string config; // may be empty
    bool json = false;
    std::vector<std::string> categories; // FILE or FILE=CATEGORY; none: the configuration's
    std::string safe_search;             // a folder; empty: none
    bool agent_down = false;
    std::optional<int64_t> agent_delay_ms;
    std::string command_socket = "/var/run/jorn.sock";
    std::string watch_socket = "/run/jorn/watch.sock"; // empty: none
    bool wants_watch_socket = false;                   // it was asked for
};

// Returns nothing after having printed the help or what is wrong; `status` is then the exit status.
std::optional<options> parse_options(int argc, char **argv, int &status);

// Neither the command line nor the configuration says where frames come from.
class no_input : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// What the command line leaves to the configuration. Throws no_input, and std::runtime_error where
// that doesn't say where frames are to go either.
void complete(options &chosen, const config &settings);

// By which frames come, if not out of a file.
std::vector<std::string> input_interfaces(const options &chosen);

// Throws std::runtime_error where frames would be taken from `output` or its peer: what is written
// there would be fed again, without an end.
void refuse_own_frames(const options &chosen, const std::string &output);

// The configuration may say others when it is read again.
const std::vector<std::string> &category_sources(const options &chosen, const config &settings);

} // namespace avcore
