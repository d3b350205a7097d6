#include "classify/arc_policy.h"
#include "core/state/state.h"
#include "fresh_state_fixture.h"

#include <cstring>

namespace {

arc_rule deny_rule() {
    arc_rule rule = rule_of("deny-me");
    rule.deny = 1;
    return rule;
}

using ArcPolicy = FreshState;

TEST_F(ArcPolicy, TablesFilledInAnotherWayThanByCommands) {
    arc_policy unlisted = {};
    unlisted.rules[0] = deny_rule();
    jorn_state.arc_utp_table[1].id = 2;
    jorn_state.arc_utp_table[1].policy = &unlisted;
    add_policy(1, {rule_of("something")});
    jorn_state.arc_policy_list.tail->rules[0] = deny_rule();
    settle_arc_tables();
    for (const uint32_t utp_id : {1u, 2u}) {
        pkt_ctx ctx = {};
        copy_text(ctx.app_name, "deny-me");
        ctx.src_utp_id = utp_id;
        jorn_apply_arc_policy(&ctx);
        EXPECT_EQ(ctx.arc_action, ARC_ACTION_BLOCK) << utp_id;
    }
}

} // namespace
