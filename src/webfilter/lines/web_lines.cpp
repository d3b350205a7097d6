#include "webfilter/lines/web_lines.h"

#include <algorithm>
#include <iterator>

namespace {

constexpr list_format LIST = {.separator = WEB_LIST_SEPARATOR, .closed = true, .empty = "-"};
constexpr int32_t NO_CATEGORY_SLOT = -1; // no category has this id

void read_categories(std::string_view text, web_policy_wire &to) {
    if (to.num_categories == 0)
        std::fill(std::begin(to.categories), std::end(to.categories), NO_CATEGORY_SLOT);
    read_list(text, LIST, std::min<size_t>(to.num_categories, WEB_CATEGORIES_MAX),
              [&to](size_t i, std::string_view item) {
                  to.categories[i] = static_cast<int32_t>(leading_decimal(item));
              });
}

void write_categories(text_appender &to, const web_policy_wire &from) {
    write_list(to, LIST, std::min<size_t>(from.num_categories, WEB_CATEGORIES_MAX),
               [&](size_t i) { to.number(from.categories[i]); });
}

// A list of patterns, whose number stands in the field before it.
template <auto List, auto Count>
constexpr line_field<web_policy_wire> patterns_field(const char *name) {
    return {name,
            [](std::string_view text, web_policy_wire &to) {
                if (to.*Count == 0)
                    (to.*List)[0][0] = '\0';
                read_list(
                    text, LIST, std::min<size_t>(to.*Count, WEB_PATTERNS_MAX),
                    [&to](size_t i, std::string_view item) { copy_text((to.*List)[i], item); });
            },
            [](text_appender &to, const web_policy_wire &from) {
                write_list(to, LIST, std::min<size_t>(from.*Count, WEB_PATTERNS_MAX),
                           [&](size_t i) { to.append(field_text((from.*List)[i])); });
            }};
}

using policy = web_policy_wire;

constexpr line_field<policy> POLICY_FIELDS[] = {
    text_field<&policy::name>("name"),
    text_field<&policy::uuid>("uuid"),
    number_field<&policy::filter_type>("filter_type"),
    number_field<&policy::num_categories>("num_categories"),
    {"categories", read_categories, write_categories},
    number_field<&policy::num_whitelist>("num_whitelist"),
    patterns_field<&policy::whitelist, &policy::num_whitelist>("whitelist"),
    number_field<&policy::num_blacklist>("num_blacklist"),
    patterns_field<&policy::blacklist, &policy::num_blacklist>("blacklist"),
    number_field<&policy::google_safe_search>("google_safe_search"),
    number_field<&policy::google_vip>("google_vip"),
    number_field<&policy::bing_safe_search>("bing_safe_search"),
    number_field<&policy::bing_vip>("bing_vip"),
    number_field<&policy::youtube_safe_search>("youtube_safe_search"),
    number_field<&policy::youtube_vip>("youtube_vip"),
};

constexpr line_field<web_intf_wire> INTF_FIELDS[] = {
    text_field<&web_intf_wire::ifname>("ifname"),
    number_field<&web_intf_wire::enable>("enable"),
    number_field<&web_intf_wire::intf_value>("intf_value"),
    number_field<&web_intf_wire::op>("op"),
    text_field<&web_intf_wire::policy_uuid>("policy_uuid"),
};

} // namespace

constexpr line_format<web_policy_wire> WEB_POLICY_LINE = {{.separator = ';'}, POLICY_FIELDS};
constexpr line_format<web_intf_wire> WEB_INTF_LINE = {{.separator = ';', .trimmed = true},
                                                      INTF_FIELDS};
