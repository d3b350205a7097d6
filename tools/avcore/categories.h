// The web categories of domains, from a text file: a line holds a domain and its one to five
// category ids, the main one first. A domain takes the line of its longest listed suffix, in whole
// labels and without regard to letter case.
#pragma once

#include "webfilter/records/web.h"

#include <map>
#include <string>
#include <string_view>

namespace avcore {

class category_list {
public:
    category_list() = default; // lists nothing

    // Throw config_error. `name` stands for the file in the message.
    static category_list parse(std::string_view text, const std::string &name);
    static category_list read(const std::string &path);

    // Status 5 for a domain that has no line.
    urlf_answer answer(std::string_view domain) const;

private:
    void add(std::string_view line);

    std::map<std::string, urlf_answer, std::less<>> domains_; // in lower case
};

} // namespace avcore
