// Lists of domains as others publish them, a name a line or several:
//
//     0.0.0.0 ads.example tracker.example    a hosts file's; or another address that leads nowhere
//     ads.example                            *.ads.example means the same
//     ||ads.example^                         a filter for a whole domain
//
// Comments begin with "#" or "!", headings with "[". Everything else, above all filters with
// conditions, is a bad line: it is counted and passed over, for a list of a million names has some.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace avcore {

struct list_counts {
    size_t names = 0;
    size_t bad_lines = 0;
    size_t first_bad_line = 0; // from 1
};

// Calls `take` with each name, in lower case; it returns false to end the reading. Throws
// config_error for a file that can't be read or is beyond measure.
list_counts read_domain_list(const std::string &path,
                             const std::function<bool(std::string_view)> &take);

} // namespace avcore
