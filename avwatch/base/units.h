// Amounts and times as people read them.
#pragma once

#include <cstdint>
#include <string>

namespace avwatch {

// "999 B", "1.2 kB", "34.5 MB": powers of 1,000, and a digit behind the point below 100.
std::string size_text(uint64_t bytes);
std::string rate_text(double bytes_per_second); // "1.2 kB/s"

// "2026-11-26 10:32:05" in the local time zone, or with a Z behind it in UTC. Of microseconds since
// 1970, of which any number has a text; 0 is "-".
std::string time_text(uint64_t us, bool utc);

} // namespace avwatch
