#include "jornctl/port_services.h"

#include "userapps/port_file/port_service_line.h"

#include <algorithm>
#include <set>
#include <utility>

namespace jornctl {
namespace {

// Why the daemon skips a line; empty for one that it takes.
std::string skip_reason(port_service_line kind) {
    switch (kind) {
    case port_service_line::NO_NAME:
        return "has no application name as its fifth field";
    case port_service_line::BAD_PORT:
        return "has no port from 1 to 65534 as its first field";
    case port_service_line::BAD_PROTOCOL:
        return "has neither tcp nor udp as its second field";
    case port_service_line::RECORD:
    case port_service_line::VERSION:
        break;
    }
    return {};
}

// The text of the first line, as much of it as the daemon reads; `text` moves on to the next.
std::string_view take_line(std::string_view &text) {
    std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    line = line.substr(0, PORT_SERVICE_LINE_MAX);
    return line.substr(0, line.find('\0'));
}

} // namespace

std::vector<line_fault> check_port_services(std::string_view text) {
    std::vector<line_fault> faults;
    std::set<std::pair<uint32_t, bool>> entries; // port, and whether it is TCP's
    for (size_t number = 1; !text.empty(); ++number) {
        port_service row = {};
        std::string_view version;
        const port_service_line kind = parse_port_service_line(take_line(text), row, version);
        if (std::string reason = skip_reason(kind); !reason.empty()) {
            faults.push_back({number, std::move(reason)});
        } else if (kind == port_service_line::RECORD && entries.size() == PORT_APPS_MAX) {
            // Even an update: the daemon asks for room before it looks for an equal entry.
            faults.push_back({number, "comes after " + std::to_string(PORT_APPS_MAX) +
                                          " entries, where the daemon stops reading"});
            break;
        } else if (kind == port_service_line::RECORD) {
            entries.emplace(row.begin_port, row.tcp_flag != 0);
        }
    }
    return faults;
}

} // namespace jornctl
