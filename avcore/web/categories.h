// The web categories of domains, from text files of two kinds:
//
//     FILE             a line holds a domain and its one to five categories, the main one first
//     FILE=CATEGORY    a list of domains (domain_lists.h), all of this category
//
// A category is a number or a name. A domain has the categories of all lists that hold it or a
// suffix of it, the longest suffix first; where one of its suffixes has a line, this line ends the
// search and says the rest. So a line is the last word about a domain that a list has wrong.
// Suffixes are of whole labels, and letter case doesn't count.
#pragma once

#include "avcore/web/domain_table.h"
#include "webfilter/records/web.h"

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace avcore {

class category_list {
public:
    category_list() = default; // lists nothing

    // Both throw config_error. `name` stands for the file in the message; `sources` are FILE or
    // FILE=CATEGORY.
    static category_list parse(std::string_view text, const std::string &name);
    static category_list read(const std::vector<std::string> &sources);

    // Status 5 for a domain without categories.
    urlf_answer answer(std::string_view domain) const;

    // What each list held, a line each.
    const std::vector<std::string> &remarks() const { return remarks_; }

private:
    void add_lines(std::string_view text, const std::string &name);
    void add_line(std::string_view line);
    void add_list(const std::string &path, uint16_t category);

    std::map<std::string, urlf_answer, std::less<>> lines_; // in lower case
    domain_table listed_;
    std::vector<std::string> remarks_;
};

} // namespace avcore
