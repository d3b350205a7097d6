// The fields of ARC policies and UTP entries. Their keys are the names of the records' members.
#pragma once

#include "control/lines/arc_lines.h"
#include "control/records/arc.h"
#include "jornctl/fields/fields.h"
#include "userapps/lines/userdef_line.h"

namespace jornctl {

// The application-policy file. An application's name stands in rules, too, so what divides either
// line is no part of any name.
std::string policy_file_separators();
inline constexpr std::string_view POLICY_FILE_MARKERS[] = {ARC_BLOCK_END, USERDEFS_END};
inline constexpr file_format POLICY_FILE = {policy_file_separators, POLICY_FILE_MARKERS, true};
// Whether it has room for all of the policy's text. A policy that it hasn't isn't in it.
bool fits_policy_file(const arc_policy_wire &policy);

inline constexpr auto MARK_KINDS = numbered(ARC_MARK_KINDS);
inline constexpr auto TRAFFIC_TYPES = numbered(ARC_TRAFFIC_TYPES);
// The category of the administrator's own applications goes by its name, too.
inline constexpr named_number CATEGORIES[] = {{CATEGORY_NAME_USER_DEFINED, CATEGORY_USER_DEFINED}};

struct qos_mark {
    uint8_t kind;
    uint8_t type;
};

inline constexpr field<qos_mark> QOS_MARK_FIELDS[] = {
    {"kind", at<&qos_mark::kind, word<MARK_KINDS>>, REQUIRED},
    {"type", at<&qos_mark::type, word<TRAFFIC_TYPES>>, REQUIRED},
};

// arc_rule::qos before its bits are put together.
struct qos_settings {
    std::optional<qos_mark> mark;
    std::optional<uint8_t> classify;
};

inline constexpr field<qos_settings> QOS_FIELDS[] = {
    {"mark", at<&qos_settings::mark, maybe<record<QOS_MARK_FIELDS>>>, OPTIONAL,
     "the mark that packets get"},
    {"classify", at<&qos_settings::classify, maybe<word<TRAFFIC_TYPES>>>, OPTIONAL,
     "the traffic type that packets are queued as"},
};

struct qos_bits {
    static void read(const node &from, uint8_t &to);
    static ordered_json words(uint8_t from);
    template <typename>
    static ordered_json schema() {
        return record<QOS_FIELDS>::schema<qos_settings>();
    }
};

struct rate : number<> {
    template <typename T>
    static void read(const node &from, T &to) {
        to = static_cast<T>(
            number_in(from, LEAST<T>, MOST<T>,
                      "; the unit is kbit/s, or a larger one by rate_unit of [enforce] in avcore's "
                      "configuration"));
    }
};

inline constexpr field<arc_rule> RULE_FIELDS[] = {
    {"app_id", at<&arc_rule::app_id, number<>>, OPTIONAL,
     "the flow's application, together with cat_id; without it the rule goes by the flow's name"},
    {"cat_id", at<&arc_rule::cat_id, number_or_word<CATEGORIES>>, OPTIONAL, "the flow's category"},
    {"app_name", at<&arc_rule::app_name, file_text<POLICY_FILE, 1>>, REQUIRED,
     "fits wherever it stands in the flow's name, in any letter case"},
    {"cat_name", at<&arc_rule::cat_name, file_text<POLICY_FILE>>, OPTIONAL,
     "\"User Defined\": the application of that name in \"applications\""},
    {"deny", at<&arc_rule::deny, flag>, OPTIONAL, "the flow is blocked"},
    {"qos", at<&arc_rule::qos, qos_bits>},
    {"rate_up", at<&arc_rule::rate_up, rate>, OPTIONAL, "in the controller's unit; 0: no limit"},
    {"rate_down", at<&arc_rule::rate_down, rate>, OPTIONAL,
     "in the controller's unit; 0: no limit"},
};

struct arc_rule_kind : record<RULE_FIELDS> {
    static void read(const node &from, arc_rule &to);
};

using utp_id = number<UTP_ID_MIN, UTP_ID_MAX>;

inline constexpr field<arc_policy_wire> POLICY_FIELDS[] = {
    {"attr1", at<&arc_policy_wire::attr1, number<>>, OPTIONAL, "kept and saved, not interpreted"},
    {"attr3", at<&arc_policy_wire::attr3, number<>>, OPTIONAL, "kept and saved, not interpreted"},
    {"attr4", at<&arc_policy_wire::attr4, number<>>, OPTIONAL, "kept and saved, not interpreted"},
    {"log_enable", at<&arc_policy_wire::log_enable, flag>, OPTIONAL,
     "each packet of the policy's flows is a line in the app-visibility log"},
    {"utp_id", at<&arc_policy_wire::utp_id, utp_id>, REQUIRED,
     "the user traffic profile that the policy serves"},
    {"name", at<&arc_policy_wire::name, text<>>},
    {"uuid", at<&arc_policy_wire::uuid, text<>>, OPTIONAL, "by which UTP entries name the policy"},
    {"rules", at<&arc_policy_wire::rules, slots<arc_rule_kind>>, OPTIONAL,
     "the first one that fits a flow decides"},
};

inline constexpr field<utp_entry_wire> UTP_FIELDS[] = {
    {"id", at<&utp_entry_wire::id, utp_id>, REQUIRED},
    {"name", at<&utp_entry_wire::name, text<>>},
    {"uuid", at<&utp_entry_wire::uuid, text<>>, OPTIONAL, "of the policy; without it all passes"},
};

} // namespace jornctl
