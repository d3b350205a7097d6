#include "avcore/web/categories.h"

#include "avcore/base/config_text.h"
#include "avcore/base/host_text.h"
#include "avcore/base/printable.h"
#include "avcore/web/blanks.h"
#include "avcore/web/category_names.h"
#include "avcore/web/domain_lists.h"
#include "shared/counted.h"

#include <algorithm>
#include <filesystem>
#include <optional>

namespace avcore {
namespace {

constexpr size_t MAX_FILE_SIZE = size_t{16} << 20; // of lines; lists may be longer

struct category_source {
    std::string path;
    std::optional<uint16_t> category; // of a list
};

category_source parse_source(const std::string &text) {
    const size_t equals = text.rfind('=');
    std::error_code ignored;
    if (equals == std::string::npos || std::filesystem::exists(text, ignored))
        return {text, std::nullopt};
    const std::string_view wanted = std::string_view(text).substr(equals + 1);
    const std::optional<uint16_t> category = category_number(wanted);
    if (!category)
        throw config_error(printable(text) + ": " + no_category(wanted));
    return {text.substr(0, equals), category};
}

// Takes the first word of a line.
std::string_view take_word(std::string_view &line) {
    line.remove_prefix(std::min(line.find_first_not_of(BLANKS), line.size()));
    const std::string_view word = line.substr(0, line.find_first_of(BLANKS));
    line.remove_prefix(word.size());
    return word;
}

// Behind those that the answer has.
void append_category(urlf_answer &answer, int32_t category) {
    int32_t *const end = answer.categories + answer.category_count;
    if (static_cast<size_t>(answer.category_count) < URLF_CATEGORIES &&
        std::find(answer.categories, end, category) == end)
        answer.categories[answer.category_count++] = category;
}

} // namespace

void category_list::add_line(std::string_view line) {
    const std::string_view domain = take_word(line);
    if (domain.empty())
        return;
    if (!is_host_text(domain))
        throw config_error("'" + printable(domain) + "' is no domain");
    const std::vector<uint16_t> numbers = category_numbers(line);
    if (numbers.empty())
        throw config_error("'" + printable(domain) + "' has no category");
    if (numbers.size() > URLF_CATEGORIES)
        throw config_error("more than " + std::to_string(URLF_CATEGORIES) + " categories");
    urlf_answer answer = {};
    for (const uint16_t number : numbers)
        answer.categories[answer.category_count++] = number;
    if (!lines_.emplace(lower_case(domain), answer).second)
        throw config_error("'" + printable(domain) + "' is listed twice");
}

void category_list::add_lines(std::string_view text, const std::string &name) {
    for (size_t number = 1; !text.empty(); ++number) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        try {
            add_line(line.substr(0, line.find('#')));
        } catch (const config_error &error) {
            throw config_error(name + ", line " + std::to_string(number) + ": " + error.what());
        }
    }
}

void category_list::add_list(const std::string &path, uint16_t category) {
    bool has_room = true;
    const list_counts counts = read_domain_list(path, [&](std::string_view name) {
        has_room = listed_.add(name, category);
        return has_room;
    });
    if (!has_room)
        throw config_error(path + ": more than " + std::to_string(domain_table::NAMES_MAX) +
                           " names in all lists");
    std::string remark =
        path + ": " + counted(counts.names, "domain", "domains") + " of " + category_text(category);
    if (counts.bad_lines != 0)
        remark += "; lines passed over: " + std::to_string(counts.bad_lines) + ", first line " +
                  std::to_string(counts.first_bad_line);
    remarks_.push_back(std::move(remark));
}

category_list category_list::parse(std::string_view text, const std::string &name) {
    category_list list;
    list.add_lines(text, name);
    return list;
}

category_list category_list::read(const std::vector<std::string> &sources) {
    category_list list;
    for (const std::string &each : sources) {
        const category_source source = parse_source(each);
        if (source.category)
            list.add_list(source.path, *source.category);
        else
            list.add_lines(read_config_text(source.path, MAX_FILE_SIZE), source.path);
    }
    list.listed_.settle();
    return list;
}

urlf_answer category_list::answer(std::string_view domain) const {
    const std::string asked = lower_case(domain);
    urlf_answer answer = {};
    for (std::string_view suffix = asked; !suffix.empty();) {
        if (const auto line = lines_.find(suffix); line != lines_.end()) {
            for (int32_t i = 0; i < line->second.category_count; ++i)
                append_category(answer, line->second.categories[i]);
            break;
        }
        listed_.each_category(suffix,
                              [&](uint16_t category) { append_category(answer, category); });
        suffix.remove_prefix(std::min(suffix.find('.'), suffix.size() - 1) + 1);
    }
    if (answer.category_count == 0)
        answer.status = URLF_STATUS_NO_LIST;
    return answer;
}

} // namespace avcore
