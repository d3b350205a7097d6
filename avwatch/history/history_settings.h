// [history] and [metrics] of the TOML file.
#pragma once

#include "avwatch/history/application_names.h"

#include <cstdint>
#include <string>

namespace avwatch {

inline constexpr char HISTORY_FILE[] = JORN_WATCH_DIR "/history.db";
inline constexpr uint32_t LIMIT_MB_MIN = 16;
inline constexpr uint32_t LIMIT_MB_MAX = 1'000'000;
inline constexpr uint32_t COMMIT_S_MAX = 3'600;

struct history_settings {
    std::string file = HISTORY_FILE;
    names_kept names = names_kept::full;
    uint32_t limit_mb = 256; // of the file, in powers of 1,000
    uint32_t commit_s = 1;   // between transactions
    bool client_metrics = false;
};

} // namespace avwatch
