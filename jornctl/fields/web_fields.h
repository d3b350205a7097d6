// The fields of web policies and of their bindings to interfaces. Their keys are the names of the
// records' members. The entries of web UTPs have the fields of ARC's.
#pragma once

#include "control/records/arc.h"
#include "jornctl/fields/fields.h"
#include "platform/psm.h"
#include "webfilter/lines/web_lines.h"
#include "webfilter/records/web.h"

namespace jornctl {

// The web-filter file. A pattern stands in a list, so what divides the list is no part of it.
std::string web_policy_separators();
std::string web_pattern_separators();
std::string web_binding_separators();
inline constexpr file_format WEB_POLICY_TEXT = {web_policy_separators, WEB_POLICY_MARKERS, false};
inline constexpr file_format WEB_PATTERN_TEXT = {web_pattern_separators, WEB_POLICY_MARKERS, false};
inline constexpr file_format WEB_BINDING_TEXT = {web_binding_separators, {}, true};

inline constexpr auto FILTER_TYPES = numbered(WEB_FILTER_TYPES);

inline constexpr auto CATEGORY_NAMES = [] {
    std::array<named_number, std::size(g_cat_map)> names = {};
    for (uint32_t id = 0; id < names.size(); ++id)
        names[id] = {g_cat_map[id] + 1, id};
    return names;
}();
inline constexpr int64_t CATEGORY_ID_MAX = 0xFFFF; // the daemon keeps so many bits of it

using web_category = number_or_word<CATEGORY_NAMES, number<0, CATEGORY_ID_MAX>>;
// Behind an empty pattern the daemon looks at no other.
using pattern = file_text<WEB_PATTERN_TEXT, 1>;

inline constexpr field<web_policy_wire> WEB_POLICY_FIELDS[] = {
    {"name", at<&web_policy_wire::name, file_text<WEB_POLICY_TEXT>>},
    {"uuid", at<&web_policy_wire::uuid, file_text<WEB_POLICY_TEXT>>, OPTIONAL,
     "by which bindings and web UTPs name the policy"},
    {"utp_id", at<&web_policy_wire::utp_id, number<UTP_ID_MIN, UTP_ID_MAX>>, OPTIONAL,
     "a web UTP that uses the policy; not kept over a restart"},
    {"filter_type", at<&web_policy_wire::filter_type, word<FILTER_TYPES>>, OPTIONAL,
     "shown, decides nothing"},
    {"categories",
     counted<&web_policy_wire::num_categories, &web_policy_wire::categories, web_category>,
     OPTIONAL, "blocked; 0 never is"},
    {"whitelist", counted<&web_policy_wire::num_whitelist, &web_policy_wire::whitelist, pattern>,
     OPTIONAL, "allowed wherever the pattern, without \"*\" at its ends, stands in the domain"},
    {"blacklist", counted<&web_policy_wire::num_blacklist, &web_policy_wire::blacklist, pattern>,
     OPTIONAL, "blocked in the same way, unless a pattern of the white list fits"},
    {"google_safe_search", at<&web_policy_wire::google_safe_search, flag>},
    {"google_vip", at<&web_policy_wire::google_vip, address>, OPTIONAL,
     "what the search hosts resolve to"},
    {"bing_safe_search", at<&web_policy_wire::bing_safe_search, flag>},
    {"bing_vip", at<&web_policy_wire::bing_vip, address>},
    {"youtube_safe_search", at<&web_policy_wire::youtube_safe_search, flag>},
    {"youtube_vip", at<&web_policy_wire::youtube_vip, address>},
};

struct web_policy_kind : record<WEB_POLICY_FIELDS> {
    static void read(const node &from, web_policy_wire &to);
};

// web_intf_wire::op: a document adds a binding or deletes it.
void read_web_delete(const node &from, web_intf_wire &to);
ordered_json web_delete_words(const web_intf_wire &from);

inline constexpr field<web_intf_wire> WEB_INTF_FIELDS[] = {
    {"ifname", at<&web_intf_wire::ifname, file_text<WEB_BINDING_TEXT, 1>>, REQUIRED},
    {"enable", at<&web_intf_wire::enable, flag>, OPTIONAL,
     "packets of the interface are filtered, by its UTPs' policies, else by the binding's"},
    {"intf_value", at<&web_intf_wire::intf_value, number<>>, OPTIONAL,
     "kept and saved, not interpreted"},
    {"policy_uuid", at<&web_intf_wire::policy_uuid, file_text<WEB_BINDING_TEXT>>},
    {"delete",
     {read_web_delete, web_delete_words, flag_schema},
     OPTIONAL,
     "the interface is bound no longer"},
};

struct web_intf_kind : record<WEB_INTF_FIELDS> {
    static void read(const node &from, web_intf_wire &to);
};

} // namespace jornctl
