// The port-service file: applications named by port and protocol, one a line,
//
//     8443,tcp,4,1201,Intranet-Portal        port, protocol, category id, application id, name
//     WDL_PORT_SERVICE_FILE_VER:1.0          anywhere; not a record
//
// The daemon skips what it can't use in silence. Here its own parser runs beforehand, with a reason
// for each line.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace jornctl {

inline constexpr char PORT_SERVICE_FILE[] = JORN_STATE_DIR "/uploadjorport_file_1.0";

struct skipped_line {
    size_t line; // from 1
    std::string reason;
    bool is_meant = false; // a blank line or a comment, which nobody expects to count
};

// What of the file the daemon would skip or not reach. A line for a port and protocol that an
// earlier one has is an update and takes no new entry.
std::vector<skipped_line> check_port_services(std::string_view text);

} // namespace jornctl
