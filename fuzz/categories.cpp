// Files of domains with their categories, as others publish them: a domain that a file holds has
// its categories, with whatever stands before its name, and no category twice.
//
// The first byte: 0 is for a file of lines, others for a list of domains of that category.
#include "avcore/web/categories.h"
#include "avcore/base/config_text.h"
#include "avcore/base/host_text.h"
#include "avcore/web/domain_lists.h"
#include "demand.h"
#include "settings_lines.h"
#include "support/memory_file.h"

#include <set>
#include <string>

namespace {

using namespace avcore;

void check_answer(const category_list &list, const std::string &domain) {
    const urlf_answer answer = list.answer(domain);
    demand(answer.category_count >= 0 && answer.category_count <= URLF_CATEGORIES);
    demand((answer.category_count == 0) == (answer.status == URLF_STATUS_NO_LIST));
    const std::set<int32_t> categories(answer.categories,
                                       answer.categories + answer.category_count);
    demand(categories.size() == static_cast<size_t>(answer.category_count));
}

// Each name that a reader of the list is told.
void check_list(const memory_file &file, unsigned category) {
    std::set<std::string, std::less<>> names;
    const list_counts counts = read_domain_list(file.path(), [&](std::string_view name) {
        demand(is_host_text(name) && name == lower_case(name));
        names.emplace(name);
        return true;
    });
    demand((counts.bad_lines == 0) == (counts.first_bad_line == 0));
    const auto list =
        category_list::read({std::string(file.path()) + '=' + std::to_string(category)});
    demand(list.remarks().size() == 1);
    for (const std::string &name : names) {
        for (const std::string &asked : {name, "www." + name}) {
            check_answer(list, asked);
            demand(list.answer(asked).categories[0] == static_cast<int32_t>(category));
        }
    }
}

void check_lines_of(std::string_view text) {
    const category_list list = category_list::parse(text, "f");
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        const std::string domain(line.substr(0, line.find_first_of(" \t\r#")));
        if (domain.empty())
            continue;
        check_answer(list, domain);
        demand(list.answer(domain).category_count != 0);
        demand(list.answer("www." + domain).categories[0] != 0);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    const std::string_view text(reinterpret_cast<const char *>(data) + 1, size - 1);
    try {
        if (data[0] == 0)
            check_lines_of(text);
        else
            check_list(memory_file(text), data[0]);
    } catch (const config_error &error) {
        check_lines(error.what(), "f");
    }
    return 0;
}
