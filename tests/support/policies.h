// Short ways to fill the ARC tables as command 23 does.
#pragma once

#include "control/tables/arc_tables.h"
#include "core/state/state.h"
#include "core/text/text.h"

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

inline arc_rule rule_of(const std::string &app_name, const std::string &cat_name = {}) {
    arc_rule rule = {};
    copy_text(rule.app_name, app_name);
    copy_text(rule.cat_name, cat_name);
    return rule;
}

inline const arc_policy *add_policy(const arc_policy_wire &wire) {
    __arc_policy_add_end(&wire);
    return jorn_state.arc_policy_list.tail;
}

inline const arc_policy *add_policy(uint32_t utp_id, const std::vector<arc_rule> &rules = {}) {
    const auto wire = std::make_unique<arc_policy_wire>();
    wire->utp_id = utp_id;
    std::copy(rules.begin(), rules.end(), wire->rules);
    return add_policy(*wire);
}
