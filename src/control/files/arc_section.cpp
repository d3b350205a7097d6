#include "control/files/arc_section.h"

#include "control/tables/arc_tables.h"
#include "core/base/log.h"
#include "core/files/saved_file.h"
#include "core/files/storable.h"
#include "core/state/state.h"

namespace {

void take_header(std::string_view line, pending_arc_policy &pending) {
    __jorn_parse_policy_config_first(line, &pending.policy);
}

void take_rule(std::string_view line, pending_arc_policy &pending) {
    __jorn_parse_policy_config_rule(line, &pending.policy, &pending.rule_count);
}

// A policy without a rule is not added: it could match nothing. The first for which there is no
// room is reported, the others aren't.
void finish_policy(std::string_view, pending_arc_policy &pending) {
    if (pending.rule_count != 0 && !pending.overflow) {
        pending.overflow = jorn_state.arc_policy_list.count >= ARC_POLICIES_MAX;
        __arc_policy_add_end(&pending.policy);
    }
    pending.rule_count = 0;
}

enum place : uint8_t { BEFORE, POLICIES, HEADER, RULES };

constexpr section_row<pending_arc_policy> SECTION_ROWS[] = {
    {BEFORE, ARC_POLICIES_BEGIN, "appPolicy start...\n", nullptr, POLICIES},
    {POLICIES, ARC_POLICIES_END, "appPolicy end...\n", nullptr, SECTION_END},
    {POLICIES, ARC_BLOCK_BEGIN, "Policy start...\n", nullptr, HEADER},
    {HEADER, "", nullptr, take_header, RULES},
    {RULES, ARC_BLOCK_END, "Policy end...\n", finish_policy, POLICIES},
    {RULES, "", nullptr, take_rule, RULES},
};

} // namespace

constexpr std::span<const section_row<pending_arc_policy>> ARC_POLICY_SECTION = SECTION_ROWS;

bool is_storable(const arc_policy_wire &policy) {
    for (size_t i = 0; i < ARC_RULES_PER_POLICY; ++i) {
        const arc_rule &rule = policy.rules[i];
        if (!is_written(rule))
            continue;
        char what[64 + sizeof policy.name];
        snprintf(what, sizeof what, "ARC policy \"%.64s\" with its rule slot %zu",
                 printable_text(field_text(policy.name)).c_str(), i);
        if (!is_storable(rule, ARC_RULE_LINE, {}, what, JORN_AS("__arc_policy_add_end")))
            return false;
    }
    return true;
}

int jorn_write_arc_policy_configuration(FILE *file) {
    section_writer writer(file, "write configuration file error!\n", JORN_HERE);
    writer.write_marker(ARC_POLICIES_BEGIN);
    write_records<ARC_BLOCK_LIMIT>(writer, jorn_state.arc_policy_list, jorn_format_arc_policy);
    writer.write_marker(ARC_POLICIES_END);
    return writer.result();
}

void __jorn_parse_policy_config_first(std::string_view line, arc_policy_wire *policy) {
    JORN_DEBUG("parsing %.*s\n", static_cast<int>(line.size()), line.data());
    *policy = {};
    read_line(line, ARC_HEADER_LINE, *policy);
}

void __jorn_parse_policy_config_rule(std::string_view line, arc_policy_wire *policy,
                                     unsigned *rule_count) {
    JORN_DEBUG("policy rule id %u\n", *rule_count);
    JORN_DEBUG("parsing rule %.*s %d\n", static_cast<int>(line.size()), line.data(),
               static_cast<int>(line.size()));
    if (*rule_count < ARC_RULES_PER_POLICY)
        read_line(line, ARC_RULE_LINE, policy->rules[*rule_count]);
    ++*rule_count;
}
