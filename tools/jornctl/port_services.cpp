#include "jornctl/port_services.h"

#include "userapps/records.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <set>
#include <strings.h>
#include <utility>

namespace jornctl {
namespace {

constexpr size_t LINE_MAX_LENGTH = 1'023;
constexpr size_t FIELD_MAX_LENGTH = 64;
constexpr size_t FIELDS = 5;
constexpr uint32_t PORT_MAX = 65'534; // 65535 is refused, too
constexpr std::string_view VERSION_KEY = "WDL_PORT_SERVICE_FILE_VER:";
constexpr std::string_view TRIMMED = " \r\n"; // a tab stays

using port_and_protocol = std::pair<uint32_t, bool>;

// A port and protocol, or why the line is none.
struct checked_line {
    std::optional<port_and_protocol> entry;
    std::string fault;
};

std::string_view trim(std::string_view text) {
    const size_t begin = std::min(text.find_first_not_of(TRIMMED), text.size());
    return text.substr(begin, text.find_last_not_of(TRIMMED) + 1 - begin);
}

// Commas in a row separate like one. A field of blanks is a field all the same.
std::vector<std::string_view> split(std::string_view line) {
    std::vector<std::string_view> fields;
    while (fields.size() < FIELDS) {
        const size_t begin = line.find_first_not_of(',');
        if (begin == std::string_view::npos)
            break;
        line.remove_prefix(begin);
        const size_t length = std::min(line.find(','), line.size());
        fields.push_back(trim(line.substr(0, std::min(length, FIELD_MAX_LENGTH))));
        line.remove_prefix(length);
    }
    return fields;
}

bool is_decimal(std::string_view text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

uint32_t port_of(std::string_view text) {
    uint32_t port = 0; // stays 0 for what isn't a number or has no room, and 0 is no port
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    return error == std::errc() && stop == text.data() + text.size() ? port : 0;
}

bool same_word(std::string_view text, std::string_view word) {
    return text.size() == word.size() && strncasecmp(text.data(), word.data(), word.size()) == 0;
}

checked_line check_record(std::string_view line) {
    const auto fault = [](std::string_view what, std::string_view value, std::string_view rule) {
        return checked_line{
            {}, std::string(what) + " \"" + std::string(value) + "\" " + std::string(rule)};
    };
    if (line.size() > LINE_MAX_LENGTH)
        return {{}, "is longer than " + std::to_string(LINE_MAX_LENGTH) + " characters"};
    if (line.find('\0') != std::string_view::npos)
        return {{}, "holds a NUL"};
    const std::vector<std::string_view> fields = split(line);
    if (fields.size() < FIELDS || fields[4].empty())
        return {{}, "has no application name as its fifth field"};
    const uint32_t port = port_of(fields[0]);
    if (port == 0 || port > PORT_MAX)
        return fault("the port", fields[0], "isn't a number from 1 to 65534");
    const bool is_tcp = same_word(fields[1], "tcp");
    if (!is_tcp && !same_word(fields[1], "udp"))
        return fault("the protocol", fields[1], "is neither tcp nor udp");
    // The daemon would take these for 0, or for the number that they begin with.
    if (!is_decimal(fields[2]))
        return fault("the category id", fields[2], "isn't a number");
    if (!is_decimal(fields[3]))
        return fault("the application id", fields[3], "isn't a number");
    return {port_and_protocol(port, is_tcp), {}};
}

} // namespace

std::vector<line_fault> check_port_services(std::string_view text) {
    std::vector<line_fault> faults;
    std::set<port_and_protocol> entries;
    for (size_t number = 1; !text.empty(); ++number) {
        const size_t length = std::min(text.find('\n'), text.size());
        const std::string_view line = text.substr(0, length);
        text.remove_prefix(std::min(length + 1, text.size()));
        if (line.find(VERSION_KEY) != std::string_view::npos)
            continue;
        const checked_line checked = check_record(line);
        if (!checked.entry) {
            faults.push_back({number, checked.fault});
        } else if (entries.size() == PORT_APPS_MAX) {
            // Even an update: the daemon asks for room before it looks for an equal entry.
            faults.push_back({number, "comes after " + std::to_string(PORT_APPS_MAX) +
                                          " entries, where the daemon stops reading"});
            break;
        } else {
            entries.insert(*checked.entry);
        }
    }
    return faults;
}

} // namespace jornctl
