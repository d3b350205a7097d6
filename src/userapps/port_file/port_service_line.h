// One line of the port-service file, for the daemon, which reads the file, and for the tool that
// checks it before it is uploaded.
//
//   WDL_PORT_SERVICE_FILE_VER:VERSION
//   PORT,PROTOCOL,CATEGORY ID,APPLICATION ID,NAME
#pragma once

#include "userapps/records/apps.h"

#include <string_view>

inline constexpr size_t PORT_SERVICE_LINE_MAX = 1023; // characters
inline constexpr size_t PORT_SERVICE_VERSION_MAX = 11;

enum class port_service_line : uint8_t {
    RECORD,
    VERSION,
    // The rest is skipped.
    NO_NAME, // fewer than five fields, or an empty fifth
    BAD_PORT,
    BAD_PROTOCOL,
};

// Reads one line. Fills `row` for a record, `version` for a version line, and leaves both alone
// otherwise.
port_service_line parse_port_service_line(std::string_view line, port_service &row,
                                          std::string_view &version);
