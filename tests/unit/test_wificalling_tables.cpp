#include "core/state/state.h"
#include "wificalling/wificalling_tables.h"

#include <gtest/gtest.h>

namespace {

TEST(WifiCalling, TablesEndAtTheirLimits) {
    jorn_state = {};
    for (uint32_t i = 0; i <= WIFICALLING_POLICIES_MAX; ++i) {
        wificalling_policy_wire carrier = {};
        snprintf(carrier.pname, sizeof carrier.pname, "c%u", i);
        EXPECT_EQ(jorn_process_wificalling_policy_cfg(carrier),
                  i < WIFICALLING_POLICIES_MAX ? 0 : -1);
    }
    wificalling_intf_wire binding = {1, "", 0, 1, {"C7"}, {}, {}};
    for (uint32_t i = 0; i <= WIFICALLING_INTFS_MAX; ++i) {
        snprintf(binding.ifname, sizeof binding.ifname, "w%u", i);
        EXPECT_EQ(jorn_process_wificalling_intf_config(binding),
                  i < WIFICALLING_INTFS_MAX ? 0 : -1);
    }
    // What is there can still be changed.
    EXPECT_EQ(jorn_process_wificalling_intf_config({1, "W0", 0, 1, {"c9"}, {}, {}}), 0);
    EXPECT_STREQ(__jorn_get_wificalling_intf("w0")->policy_ref[0]->pname, "c9");
    EXPECT_EQ(__jorn_get_wificalling_intf("W0"), nullptr);
    EXPECT_EQ(__jorn_get_wificalling_intf(nullptr), nullptr);
    jorn_process_wificalling_policy_flush();
    EXPECT_EQ(__jorn_get_wificalling_intf("w0")->policy_ref[0], nullptr);
    jorn_state.wificalling_intf_list.release_all();
}

} // namespace
