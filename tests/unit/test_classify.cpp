#include "classify/arc_policy.h"
#include "classify/dns_app.h"
#include "support/frames.h"
#include "support/fresh_state.h"
#include "support/policies.h"

#include <gtest/gtest.h>

namespace {

TEST(Ipv4String, Rows) {
    // What follows an empty number isn't read.
    for (const char *text : {"1.2.3.4", "255.255.255.255", "01.2.3.4", "1..22.999"})
        EXPECT_EQ(jorn_is_valid_ipv4_string(text), 1) << text;
    for (const char *text : {"", "1.2.3", "01.2.3.256", ".1.2.3", "1.2.3.4.", "1.2.3.4.5",
                             "1.2.3.4\r", "-1.2.3.4", "1.1.1.999999999", "9999999999..1.1"})
        EXPECT_EQ(jorn_is_valid_ipv4_string(text), 0) << text;
    EXPECT_EQ(jorn_is_valid_ipv4_string(nullptr), 0);
}

TEST(RedirectIp, Rows) {
    const struct {
        const char *location;
        const char *found; // none = -1
    } rows[] = {
        {"http://192.0.2.1/path", "192.0.2.1"},
        {"http://host.example/192.0.2.1/x", "192.0.2.1"},
        {"//a//b//c//d//192.0.2.1", "192.0.2.1"},
        {"a/b/c/d/e/192.0.2.1", nullptr},
        {"http://192.0.2.1\r\nServer: x/", nullptr},
        {"1..22.33/192.0.2.1", "192.0.2.1"},
        {"///", nullptr},
        {"", nullptr},
    };
    for (const auto &row : rows) {
        uint32_t address_be = 0;
        EXPECT_EQ(jorn_parse_redirect_ip(row.location, &address_be), row.found != nullptr ? 0 : -1)
            << row.location;
        EXPECT_EQ(address_be, row.found != nullptr ? ip(row.found) : 0) << row.location;
    }
}

TEST(ArcPolicy, RulesWithoutAnIndexAreWalked) { // there was no memory for one
    fresh_state();
    arc_policy unlisted = {};
    unlisted.rules[0] = rule_of("deny-me");
    unlisted.rules[0].deny = 1;
    jorn_state.arc_utp_table[1].id = 2;
    jorn_state.arc_utp_table[1].policy = &unlisted;
    jorn_settings.arc_enabled = 1;
    pkt_ctx ctx = {};
    copy_text(ctx.app_name, "deny-me");
    ctx.src_utp_id = 2;
    jorn_apply_arc_policy(&ctx);
    EXPECT_EQ(ctx.arc_action, ARC_ACTION_BLOCK);
    fresh_state();
}

} // namespace
