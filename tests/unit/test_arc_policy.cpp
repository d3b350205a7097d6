#include "classify/arc_policy.h"
#include "support/fresh_state.h"
#include "support/policies.h"

#include <gtest/gtest.h>

namespace {

TEST(ArcPolicy, TablesFilledInAnotherWayThanByCommands) {
    fresh_state();
    arc_rule deny = rule_of("deny-me");
    deny.deny = 1;
    arc_policy unlisted = {};
    unlisted.rules[0] = deny;
    jorn_state.arc_utp_table[1].id = 2;
    jorn_state.arc_utp_table[1].policy = &unlisted;
    add_policy(1, {rule_of("something")});
    jorn_state.arc_policy_list.tail->rules[0] = deny;
    settle_arc_tables();
    for (const uint32_t utp_id : {1u, 2u}) {
        pkt_ctx ctx = {};
        copy_text(ctx.app_name, "deny-me");
        ctx.src_utp_id = utp_id;
        jorn_apply_arc_policy(&ctx);
        EXPECT_EQ(ctx.arc_action, ARC_ACTION_BLOCK) << utp_id;
    }
    jorn_process_arc_policy_flush();
}

} // namespace
