// A test with a fresh state block and platform, and short ways to give it policies as command 23
// does.
#pragma once

#include "control/tables/arc_tables.h"
#include "core/base/settings.h"
#include "core/state/state.h"
#include "core/text/text.h"
#include "fake_platform.h"

#include <gtest/gtest.h>
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
    arc_policy_wire wire = {};
    wire.utp_id = utp_id;
    std::copy(rules.begin(), rules.end(), wire.rules);
    return add_policy(wire);
}

class FreshState : public testing::Test {
protected:
    void SetUp() override {
        jorn_state = {};
        jorn_settings = {};
        platform = {};
    }
    void TearDown() override { jorn_process_arc_policy_flush(); }
};
