#include "control/priority.h"

#include "control/lines/arc_listing.h"
#include "control/tables/arc_tables.h"
#include "core/base/log.h"
#include "core/base/reply.h"
#include "core/state/state.h"
#include "core/text/text.h"

#include <algorithm>
#include <string_view>

namespace {

static_assert(std::ranges::all_of(ARC_TRAFFIC_TYPES, [](std::string_view name) {
    return name.size() < TRAFFIC_TYPE_SIZE;
}));

const char *mark_kind_text(uint8_t kind) {
    if (kind < std::size(ARC_MARK_KINDS))
        return ARC_MARK_KINDS[kind];
    JORN_DEBUG_AS("jorn_check_priority", "Not Applicable\n");
    return "";
}

void list_rule(line_buffer &listing, const arc_rule &rule) {
    char traffic_type[TRAFFIC_TYPE_SIZE];
    const priority_listing &cells = PRIORITY_LISTING;
    listing.cell(cells.app_id, rule.app_id);
    listing.cell(rule.cat_id == CATEGORY_USER_DEFINED ? cells.cat_id_user_defined : cells.cat_id,
                 rule.cat_id);
    listing.cell(cells.app_name, printable_text(field_text(rule.app_name)).c_str());
    listing.cell(cells.cat_name, printable_text(field_text(rule.cat_name)).c_str());
    if (rule.deny != 0)
        listing.cell(cells.deny);
    if (ARC_QOS_MARKING.of(rule.qos) != 0) {
        listing.cell(cells.mark_kind, mark_kind_text(ARC_QOS_MARK_KIND.of(rule.qos)));
        jorn_check_traffic_type(traffic_type, ARC_QOS_MARK_TYPE.of(rule.qos));
        listing.cell(cells.mark_type, traffic_type);
    }
    if (ARC_QOS_CLASSIFICATION.of(rule.qos) != 0) {
        listing.cell(cells.classify);
        jorn_check_traffic_type(traffic_type, ARC_QOS_CLASSIFY_TYPE.of(rule.qos));
        listing.cell(cells.classify_type, traffic_type);
    }
    if (rule.rate_up != 0 || rule.rate_down != 0) {
        listing.cell(cells.rate_up, rule.rate_up);
        listing.cell(cells.rate_down, rule.rate_down);
    }
    listing.append("\n");
}

const arc_policy *find_policy(uint32_t id) {
    if (!is_utp_id(id))
        return nullptr;
    return jorn_state.arc_policy_list.find(
        [id](const arc_policy &policy) { return policy.utp_id == id; });
}

void list_priorities(line_buffer &text, uint32_t arc_policy_id) {
    const arc_policy *policy = find_policy(arc_policy_id);
    if (policy == nullptr) {
        text.cell(PRIORITY_LISTING.invalid);
        return;
    }
    char listing[PRIORITY_LISTING_SIZE];
    jorn_check_priority(listing, sizeof listing, policy);
    text.cell(PRIORITY_LISTING.name, printable_text(policy->name).c_str());
    text.append(listing);
}

} // namespace

void jorn_check_traffic_type(char *text, uint8_t code) {
    if (code < std::size(ARC_TRAFFIC_TYPES))
        text += std::string_view(ARC_TRAFFIC_TYPES[code]).copy(text, TRAFFIC_TYPE_SIZE - 1);
    else
        JORN_DEBUG("Not Applicable\n");
    *text = '\0';
}

void jorn_check_priority(char *text, size_t size, const arc_policy *policy) {
    line_buffer listing(text, size, when_full::leave_out);
    for (const arc_rule &rule : policy->rules) {
        if (rule.app_name[0] != '\0')
            list_rule(listing, rule);
    }
}

int jorn_process_cmd_check_priority(int fd, uint32_t arc_policy_id) {
    return answer(fd, list_priorities, arc_policy_id);
}
