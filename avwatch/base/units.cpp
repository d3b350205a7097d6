#include "avwatch/base/units.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>

namespace avwatch {

std::string size_text(uint64_t bytes) {
    constexpr const char *units[] = {"kB", "MB", "GB", "TB", "PB", "EB"};
    if (bytes < 1'000)
        return std::to_string(bytes) + " B";
    auto amount = static_cast<double>(bytes) / 1'000;
    size_t unit = 0;
    // What would be rounded to 1000 is one of the next unit.
    while (amount >= 999.5) {
        amount /= 1'000;
        ++unit;
    }
    std::array<char, 16> text;
    snprintf(text.data(), text.size(), amount < 99.95 ? "%.1f %s" : "%.0f %s", amount, units[unit]);
    return text.data();
}

std::string rate_text(double bytes_per_second) {
    constexpr double most = 1e18;
    return size_text(static_cast<uint64_t>(std::clamp(bytes_per_second, 0.0, most))) + "/s";
}

std::string time_text(uint64_t us, bool utc) {
    const auto seconds = static_cast<time_t>(us / 1'000'000);
    tm parts = {};
    if (us == 0 || (utc ? gmtime_r(&seconds, &parts) : localtime_r(&seconds, &parts)) == nullptr)
        return "-";
    std::array<char, 40> text;
    const size_t length = strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts);
    return std::string(text.data(), length) + (utc ? "Z" : "");
}

} // namespace avwatch
