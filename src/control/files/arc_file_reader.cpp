#include "control/files/configuration.h"

#include "control/tables/arc_tables.h"
#include "core/base/log.h"
#include "core/base/text_file.h"
#include "core/state/state.h"
#include "core/text/fields.h"
#include "core/text/text.h"
#include "userapps/settle.h"

#include <cstring>
#include <sys/socket.h>

namespace {

constexpr size_t USERDEF_NAME_MAX = 63; // of the 65 that the field could hold

// The lines of the state machine stand in the log under the loader's name.
constexpr char LOADER[] = "jorn_load_configurations";

enum class section : uint8_t {
    before,
    policies,
    header,
    rules,
    between,
    userdefs,
    complete,
};

// What has been read and isn't whole yet.
struct unfinished {
    arc_policy_wire policy;
    unsigned rule_count;
    userdef_table userdefs;
    bool overflow;
};

template <typename T>
T decimal(std::string_view token) {
    return static_cast<T>(leading_decimal(token));
}

void take_address(uint8_t (&address)[16], std::string_view token) {
    const auto word = decimal<uint32_t>(token);
    memcpy(address, &word, sizeof word);
}

void set_rule_field(arc_rule &rule, int position, std::string_view token) {
    switch (position) {
    case 1:
        rule.app_id = decimal<uint16_t>(token);
        break;
    case 2:
        rule.cat_id = decimal<uint16_t>(token);
        break;
    case 3:
        copy_text(rule.app_name, token);
        break;
    case 4:
        copy_text(rule.cat_name, token);
        break;
    case 5:
        rule.deny = decimal<uint8_t>(token);
        break;
    case 6:
        rule.qos |= ARC_QOS_MARKING.in_place(decimal<uint8_t>(token));
        break;
    case 7:
        rule.qos |= ARC_QOS_CLASSIFICATION.in_place(decimal<uint8_t>(token));
        break;
    case 8:
        rule.qos |= ARC_QOS_MARK_KIND.in_place(decimal<uint8_t>(token));
        break;
    case 9:
        rule.qos |= ARC_QOS_MARK_TYPE.in_place(decimal<uint8_t>(token));
        break;
    case 10:
        rule.qos |= ARC_QOS_CLASSIFY_TYPE.in_place(decimal<uint8_t>(token));
        break;
    case 11:
        rule.rate_up = decimal<uint16_t>(token);
        break;
    case 12:
        rule.rate_down = decimal<uint16_t>(token);
        break;
    default:
        break;
    }
}

void set_userdef_field(userdef_app &record, int position, std::string_view token) {
    switch (position) {
    case 1:
        record.src_family = decimal<uint16_t>(token);
        break;
    case 2:
        if (record.src_family == AF_INET)
            take_address(record.src_ip, token);
        break;
    case 3:
        record.dst_family = decimal<uint16_t>(token);
        break;
    case 4:
        if (record.dst_family == AF_INET)
            take_address(record.dst_ip, token);
        break;
    case 5:
        record.netmask = decimal<uint32_t>(token);
        break;
    case 6:
        record.src_port = decimal<uint16_t>(token);
        break;
    case 7:
        record.dst_port = decimal<uint16_t>(token);
        break;
    case 8:
        record.protocol = decimal<uint32_t>(token);
        break;
    case 9:
        record.app_id = decimal<uint16_t>(token);
        break;
    case 10:
        record.cat_id = decimal<uint16_t>(token);
        break;
    case 11:
        copy_text(record.app_name, token.substr(0, USERDEF_NAME_MAX));
        break;
    case 12:
        record.bitmap = decimal<uint8_t>(token);
        break;
    default:
        break;
    }
}

// A policy without a rule is not added: it could match nothing.
void finish_policy(unfinished &pending) {
    JORN_DEBUG_AS(LOADER, "Policy end...\n");
    if (pending.rule_count != 0)
        __arc_policy_add_end(&pending.policy);
    pending.rule_count = 0;
}

void take_userdef(std::string_view line, unfinished &pending) {
    userdef_table &table = pending.userdefs;
    if (table.count < USERDEF_APPS_MAX) {
        jorn_restore_userdef_policy_entry(line, &table.records[table.count]);
        ++table.count;
    } else if (!pending.overflow) {
        pending.overflow = true;
        JORN_ERROR_AS(LOADER, "more than %d user-defined applications, the others are ignored\n",
                      USERDEF_APPS_MAX);
    }
}

void finish_userdefs(const unfinished &pending) {
    jorn_state.userdef_apps = pending.userdefs;
    settle_userapps();
    JORN_DEBUG_AS(LOADER, "userdef : %d\n", pending.userdefs.count);
}

// Takes one line and returns the section of the next.
section take_line(section current, std::string_view line, unfinished &pending) {
    switch (current) {
    case section::before:
        if (!contains_ignoring_case(line, "[appPolicy]"))
            return section::before;
        JORN_DEBUG_AS(LOADER, "appPolicy start...\n");
        return section::policies;
    case section::policies:
        if (contains_ignoring_case(line, "[appPolicy end]")) {
            JORN_DEBUG_AS(LOADER, "appPolicy end...\n");
            return section::between;
        }
        if (!contains_ignoring_case(line, "[policy]"))
            return section::policies;
        JORN_DEBUG_AS(LOADER, "Policy start...\n");
        return section::header;
    case section::header:
        __jorn_parse_policy_config_first(line, &pending.policy);
        return section::rules;
    case section::rules:
        if (contains_ignoring_case(line, "[policy end]")) {
            finish_policy(pending);
            return section::policies;
        }
        __jorn_parse_policy_config_rule(line, &pending.policy, &pending.rule_count);
        return section::rules;
    case section::between:
        return contains_ignoring_case(line, "[userdef]") ? section::userdefs : section::between;
    case section::userdefs:
        if (contains_ignoring_case(line, "[userdef end]")) {
            finish_userdefs(pending);
            return section::complete;
        }
        take_userdef(line, pending);
        return section::userdefs;
    case section::complete:
        break;
    }
    return section::complete;
}

} // namespace

void restore_configuration(FILE *file, const char *path) {
    line_reader reader(file, path, JORN_AS(LOADER));
    unfinished pending = {};
    section current = section::before;
    for (std::string_view line; current != section::complete && reader.next(line);)
        current = take_line(current, line, pending);
    if (reader.read_error() != 0)
        JORN_ERRNO_AS(LOADER, reader.read_error(), "%s can't be read to its end\n", path);
    else if (current != section::complete)
        JORN_ERROR_AS(LOADER, "%s ends early, after line %u: what isn't whole is left out\n", path,
                      reader.line_number());
}

void __jorn_parse_policy_config_first(std::string_view line, arc_policy_wire *policy) {
    JORN_DEBUG("parsing %.*s\n", static_cast<int>(line.size()), line.data());
    *policy = {};
    field_splitter fields(line, {.separator = ';', .trimmed = true});
    for (uint8_t *attribute :
         {&policy->attr1, &policy->attr3, &policy->attr4, &policy->log_enable}) {
        std::string_view token;
        fields.next(token);
        *attribute = decimal<uint8_t>(token);
    }
    std::string_view token;
    fields.next(token);
    policy->utp_id = decimal<uint32_t>(token);
}

void __jorn_parse_policy_config_rule(std::string_view line, arc_policy_wire *policy,
                                     unsigned *rule_count) {
    JORN_DEBUG("policy rule id %u\n", *rule_count);
    JORN_DEBUG("parsing rule %.*s %d\n", static_cast<int>(line.size()), line.data(),
               static_cast<int>(line.size()));
    if (*rule_count < ARC_RULES_PER_POLICY) {
        arc_rule &rule = policy->rules[*rule_count];
        field_splitter fields(line, {.separator = ',', .trimmed = true});
        std::string_view token;
        for (int position = 1; position <= 12 && fields.next(token); ++position)
            set_rule_field(rule, position, token);
    }
    ++*rule_count;
}

void jorn_restore_userdef_policy_entry(std::string_view line, userdef_app *record) {
    field_splitter fields(line, {.separator = ';', .trimmed = true});
    std::string_view token;
    for (int position = 1; position <= 12 && fields.next(token); ++position) {
        JORN_DEBUG("%d: %.*s", position, static_cast<int>(token.size()), token.data());
        set_userdef_field(*record, position, token);
    }
}
