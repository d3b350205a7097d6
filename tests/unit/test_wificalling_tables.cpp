#include "core/state/state.h"
#include "wificalling/fqdn_map.h"
#include "wificalling/wificalling_tables.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>

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

TEST(WifiCalling, FqdnMapRecords) {
    pkt_ctx pkt = {};
    memset(&pkt.flow_key, 0x5A, sizeof pkt.flow_key);
    strcpy(pkt.wfc_if_name, "sixteen-letters!");
    strcpy(pkt.wfc_fqdn, "epdg.example");
    pkt.wfc_ip = 0x01020304;
    const std::string key(60, 0x5A);
    for (const auto kind : {fqdn_map_kind::question, fqdn_map_kind::announcement}) {
        const fqdn_map_request request = make_fqdn_map_request(pkt, kind);
        std::string expected = std::string("sixteen-letters") + '\0' + key;
        if (kind == fqdn_map_kind::announcement)
            expected += "\x04\x03\x02\x01"
                        "epdg.example";
        expected.resize(336);
        EXPECT_EQ(std::string(reinterpret_cast<const char *>(&request), sizeof request), expected);
    }
}

} // namespace
