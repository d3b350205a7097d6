#include "userapps/port_file/port_service_line.h"

#include "core/text/fields.h"
#include "core/text/text.h"

#include <algorithm>
#include <array>

namespace {

constexpr std::string_view VERSION_KEY = "WDL_PORT_SERVICE_FILE_VER:";
constexpr std::string_view WHITE_SPACE = " \t\n\v\f\r";
constexpr size_t FIELD_MAX = 64;
constexpr int64_t PORT_MIN = 1;
constexpr int64_t PORT_MAX = 65534;

enum field : size_t { PORT, PROTOCOL, CATEGORY_ID, APPLICATION_ID, NAME, FIELD_COUNT };

// The fields that a line lacks are empty.
std::array<std::string_view, FIELD_COUNT> split(std::string_view line) {
    std::array<std::string_view, FIELD_COUNT> fields;
    field_splitter splitter(line, {.separator = ',', .empties_vanish = true});
    for (std::string_view &field : fields) {
        if (!splitter.next(field))
            break;
        // Cut before it is trimmed: blanks count.
        field = trimmed(field.substr(0, FIELD_MAX));
    }
    return fields;
}

std::string_view version_behind(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(WHITE_SPACE), text.size()));
    return text.substr(0, std::min(text.find_first_of(WHITE_SPACE), PORT_SERVICE_VERSION_MAX));
}

} // namespace

port_service_line parse_port_service_line(std::string_view line, port_service &row,
                                          std::string_view &version) {
    if (const size_t key = line.find(VERSION_KEY); key != std::string_view::npos) {
        version = version_behind(line.substr(key + VERSION_KEY.size()));
        return port_service_line::VERSION;
    }
    const std::array<std::string_view, FIELD_COUNT> fields = split(line);
    if (fields[NAME].empty())
        return port_service_line::NO_NAME;
    const int64_t port = leading_decimal(fields[PORT]);
    if (port < PORT_MIN || port > PORT_MAX)
        return port_service_line::BAD_PORT;
    const bool tcp = equals_ignoring_case(fields[PROTOCOL], "tcp");
    const bool udp = equals_ignoring_case(fields[PROTOCOL], "udp");
    if (!tcp && !udp)
        return port_service_line::BAD_PROTOCOL;

    row = {};
    row.begin_port = row.end_port = static_cast<uint32_t>(port);
    row.tcp_flag = tcp ? 1 : 0;
    row.udp_flag = udp ? 1 : 0;
    copy_text(row.app_name, fields[NAME]);
    row.app_id = static_cast<uint16_t>(leading_decimal(fields[APPLICATION_ID]));
    row.cat_id = static_cast<uint16_t>(leading_decimal(fields[CATEGORY_ID]));
    return port_service_line::RECORD;
}
