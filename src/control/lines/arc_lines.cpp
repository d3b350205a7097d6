#include "control/lines/arc_lines.h"

namespace {

constexpr line_field<arc_policy_wire> HEADER_FIELDS[] = {
    number_field<&arc_policy_wire::attr1>("attr1"),
    number_field<&arc_policy_wire::attr3>("attr3"),
    number_field<&arc_policy_wire::attr4>("attr4"),
    number_field<&arc_policy_wire::log_enable>("log_enable"),
    number_field<&arc_policy_wire::utp_id>("utp_id"),
};

constexpr line_field<arc_rule> RULE_FIELDS[] = {
    number_field<&arc_rule::app_id>("app_id"),
    number_field<&arc_rule::cat_id>("cat_id"),
    text_field<&arc_rule::app_name>("app_name"),
    text_field<&arc_rule::cat_name>("cat_name"),
    number_field<&arc_rule::deny>("deny"),
    bits_field<&arc_rule::qos, ARC_QOS_MARKING>("marking"),
    bits_field<&arc_rule::qos, ARC_QOS_CLASSIFICATION>("classification"),
    bits_field<&arc_rule::qos, ARC_QOS_MARK_KIND>("mark_kind"),
    bits_field<&arc_rule::qos, ARC_QOS_MARK_TYPE>("mark_type"),
    bits_field<&arc_rule::qos, ARC_QOS_CLASSIFY_TYPE>("classify_type"),
    number_field<&arc_rule::rate_up>("rate_up"),
    number_field<&arc_rule::rate_down>("rate_down"),
};

} // namespace

constexpr line_format<arc_policy_wire> ARC_HEADER_LINE = {{.separator = ';', .trimmed = true},
                                                          HEADER_FIELDS};
constexpr line_format<arc_rule> ARC_RULE_LINE = {{.separator = ',', .trimmed = true}, RULE_FIELDS};

bool is_written(const arc_rule &rule) {
    return rule.app_name[0] != '\0';
}

int jorn_format_arc_policy(char *text, const arc_policy_wire *policy, size_t *length,
                           size_t capacity) {
    text_appender to(text, length, capacity);
    to.append(ARC_BLOCK_BEGIN);
    to.append("\n");
    write_line(to, ARC_HEADER_LINE, *policy);
    for (const arc_rule &rule : policy->rules) {
        if (is_written(rule))
            write_line(to, ARC_RULE_LINE, rule);
    }
    to.append(ARC_BLOCK_END);
    to.append("\n\n");
    return to.result();
}
