#include "avcore/web/domain_lists.h"

#include "avcore/base/config_text.h"
#include "avcore/base/host_text.h"
#include "avcore/base/ip_address.h"
#include "avcore/web/blanks.h"
#include "avcore/web/domain_table.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ext/stdio_filebuf.h>
#include <istream>
#include <vector>

namespace avcore {
namespace {

constexpr size_t LARGEST_FILE = size_t{512} << 20; // or a device would never end
constexpr size_t LONGEST_LINE = 4'096;

std::vector<std::string_view> words_of(std::string_view line) {
    std::vector<std::string_view> words;
    while (true) {
        line.remove_prefix(std::min(line.find_first_not_of(BLANKS), line.size()));
        if (line.empty() || line.front() == '#')
            return words;
        words.push_back(line.substr(0, line.find_first_of(BLANKS)));
        line.remove_prefix(words.back().size());
    }
}

// A name with a dot, and no address: a single label would be a whole top-level domain, or the
// machine itself.
bool is_listable(std::string_view name) {
    const size_t last_dot = name.rfind('.');
    return name.size() <= domain_table::DOMAIN_LENGTH_MAX && is_host_text(name) &&
           last_dot != std::string_view::npos &&
           name.find_first_not_of("0123456789", last_dot + 1) != std::string_view::npos;
}

bool is_address(std::string_view word) {
    return ip_address::parse(std::string(word.substr(0, word.find('%')))).has_value();
}

bool leads_nowhere(std::string_view address) {
    constexpr const char *NOWHERE[] = {"0.0.0.0", "127.0.0.1", "::", "::1"};
    return std::find(std::begin(NOWHERE), std::end(NOWHERE), address) != std::end(NOWHERE);
}

// What a hosts file begins with are the machine's own names.
bool is_own_name(std::string_view name) {
    return name.find('.') == std::string_view::npos || name == "0.0.0.0" ||
           name == "localhost.localdomain";
}

// The domain of a line with one word.
std::string_view bare_domain(std::string_view word) {
    constexpr std::string_view ANY_HOST = "*.";
    constexpr std::string_view FILTER = "||";
    if (word.starts_with(FILTER) && word.ends_with('^'))
        return word.substr(FILTER.size(), word.size() - FILTER.size() - 1);
    return word.starts_with(ANY_HOST) ? word.substr(ANY_HOST.size()) : word;
}

class list_reader {
public:
    explicit list_reader(const std::function<bool(std::string_view)> &take) : take_(take) {}

    void read(std::istream &in, const std::string &path) {
        std::array<char, LONGEST_LINE> line;
        size_t size = 0;
        while (!ended_ && in.getline(line.data(), line.size()).gcount() > 0) {
            ++line_;
            const auto got =
                static_cast<size_t>(in.gcount()); // with its line feed, where it has one
            size += got;
            const bool is_cut = in.fail(); // longer than the buffer
            if (is_cut || !take_line({line.data(), in.eof() ? got : got - 1}))
                note_bad_line();
            if (is_cut)
                skip_line(in, size);
            if (size > LARGEST_FILE)
                throw config_error(path + ": longer than " + std::to_string(LARGEST_FILE) +
                                   " bytes");
        }
        if (in.bad())
            throw config_error(path + ": " + strerror(errno));
    }

    const list_counts &counts() const { return counts_; }

private:
    void skip_line(std::istream &in, size_t &size) {
        in.clear();
        in.ignore(static_cast<std::streamsize>(LARGEST_FILE), '\n');
        size += static_cast<size_t>(in.gcount());
    }

    void note_bad_line() {
        if (counts_.bad_lines++ == 0)
            counts_.first_bad_line = line_;
    }

    // Returns whether the line was understood.
    bool take_line(std::string_view line) {
        const std::vector<std::string_view> words = words_of(line);
        if (words.empty() || words[0].front() == '!' || words[0].front() == '[')
            return true;
        if (words.size() == 1)
            return take_name(bare_domain(words[0]));
        if (!leads_nowhere(words[0]))
            return is_address(words[0]) && std::all_of(words.begin() + 1, words.end(), is_own_name);
        bool all = true;
        for (size_t i = 1; i < words.size(); ++i)
            all = (is_own_name(words[i]) || take_name(words[i])) && all;
        return all;
    }

    bool take_name(std::string_view name) {
        if (name.ends_with('.'))
            name.remove_suffix(1);
        if (!is_listable(name))
            return false;
        ended_ = !take_(lower_case(name));
        ++counts_.names;
        return true;
    }

    const std::function<bool(std::string_view)> &take_;
    list_counts counts_;
    size_t line_ = 0;
    bool ended_ = false;
};

} // namespace

list_counts read_domain_list(const std::string &path,
                             const std::function<bool(std::string_view)> &take) {
    __gnu_cxx::stdio_filebuf<char> buffer(open_config(path).release(), std::ios::in);
    std::istream in(&buffer);
    list_reader reader(take);
    reader.read(in, path);
    return reader.counts();
}

} // namespace avcore
