#include "jornctl/documents/port_services.h"

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

// The first line; `text` moves on to the next.
std::string_view take_line(std::string_view &text) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    return line;
}

std::string_view as_the_daemon_reads(std::string_view line) {
    line = line.substr(0, PORT_SERVICE_LINE_MAX);
    return line.substr(0, line.find('\0'));
}

bool is_blank_or_comment(std::string_view line) {
    const size_t begin = line.find_first_not_of(" \t\r");
    return begin == std::string_view::npos || line[begin] == '#';
}

size_t count_lines(std::string_view text) {
    const bool ends_open = !text.empty() && text.back() != '\n';
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) + (ends_open ? 1 : 0);
}

// Even an update is beyond reach: the daemon asks for room before it looks for an equal entry.
std::string beyond_reach(size_t lines_behind) {
    return "comes after " + std::to_string(PORT_APPS_MAX) +
           " entries, where the daemon stops reading; it is followed by " +
           std::to_string(lines_behind) + " more";
}

} // namespace

std::vector<skipped_line> check_port_services(std::string_view text) {
    std::vector<skipped_line> skipped;
    std::set<std::pair<uint32_t, bool>> entries; // port, and whether it is TCP's
    for (size_t number = 1; !text.empty(); ++number) {
        port_service row = {};
        std::string_view version;
        const std::string_view line = take_line(text);
        const port_service_line kind =
            parse_port_service_line(as_the_daemon_reads(line), row, version);
        if (std::string reason = skip_reason(kind); !reason.empty()) {
            if (is_blank_or_comment(line))
                skipped.push_back({number, "skipped, a blank line or a comment", true});
            else
                skipped.push_back({number, std::move(reason)});
        } else if (kind == port_service_line::RECORD && entries.size() == PORT_APPS_MAX) {
            skipped.push_back({number, beyond_reach(count_lines(text))});
            break;
        } else if (kind == port_service_line::RECORD) {
            entries.emplace(row.begin_port, row.tcp_flag != 0);
        }
    }
    return skipped;
}

} // namespace jornctl
