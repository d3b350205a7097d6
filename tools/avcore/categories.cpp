#include "avcore/categories.h"

#include "avcore/config.h"
#include "avcore/config_text.h"
#include "avcore/host_text.h"
#include "avcore/printable.h"

#include <algorithm>
#include <charconv>
#include <system_error>

namespace avcore {
namespace {

constexpr size_t MAX_FILE_SIZE = size_t{16} << 20;
constexpr uint16_t CATEGORY_MIN = 1; // 0 is none

// Takes the next word of a line; empty when there is none.
std::string_view take_word(std::string_view &line) {
    constexpr std::string_view BLANKS = " \t\r";
    line.remove_prefix(std::min(line.find_first_not_of(BLANKS), line.size()));
    const std::string_view word = line.substr(0, line.find_first_of(BLANKS));
    line.remove_prefix(word.size());
    return word;
}

int32_t category_id(std::string_view word) {
    uint16_t id = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), id);
    if (error != std::errc() || end != word.data() + word.size() || id < CATEGORY_MIN)
        throw config_error("'" + printable(word) + "' is no category: whole numbers from 1");
    return id;
}

} // namespace

void category_list::add(std::string_view line) {
    const std::string_view domain = take_word(line);
    if (domain.empty())
        return;
    if (!is_host_text(domain))
        throw config_error("'" + printable(domain) + "' is no domain");
    urlf_answer answer = {};
    for (std::string_view word = take_word(line); !word.empty(); word = take_word(line)) {
        if (static_cast<size_t>(answer.category_count) == URLF_CATEGORIES)
            throw config_error("more than " + std::to_string(URLF_CATEGORIES) + " categories");
        answer.categories[answer.category_count++] = category_id(word);
    }
    if (answer.category_count == 0)
        throw config_error("'" + printable(domain) + "' has no category");
    if (!domains_.emplace(lower_case(domain), answer).second)
        throw config_error("'" + printable(domain) + "' is listed twice");
}

category_list category_list::parse(std::string_view text, const std::string &name) {
    category_list list;
    for (size_t number = 1; !text.empty(); ++number) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        try {
            list.add(line.substr(0, line.find('#')));
        } catch (const config_error &error) {
            throw config_error(name + ", line " + std::to_string(number) + ": " + error.what());
        }
    }
    return list;
}

category_list category_list::read(const std::string &path) {
    return parse(read_config_text(path, MAX_FILE_SIZE), path);
}

urlf_answer category_list::answer(std::string_view domain) const {
    const std::string asked = lower_case(domain);
    std::string_view suffix = asked;
    while (!suffix.empty()) {
        if (const auto found = domains_.find(suffix); found != domains_.end())
            return found->second;
        suffix.remove_prefix(std::min(suffix.find('.'), suffix.size() - 1) + 1);
    }
    urlf_answer none = {};
    none.status = URLF_STATUS_NO_LIST;
    return none;
}

} // namespace avcore
