#include "userapps_fixture.h"

#include <arpa/inet.h>
#include <cstring>

namespace {

uint32_t ip(const char *text) {
    return inet_addr(text);
}

userdef_app definition(const char *name, const char *network = nullptr, const char *mask = nullptr,
                       uint16_t port = 0, uint32_t protocol = 0) {
    userdef_app app = {};
    copy_text(app.app_name, name);
    if (network != nullptr) {
        app.dst_family = 2;
        const uint32_t address = ip(network);
        memcpy(app.dst_ip, &address, sizeof address);
        app.netmask = ip(mask);
    }
    app.dst_port = port;
    app.protocol = protocol;
    app.app_id = 1201;
    app.cat_id = 0x8000;
    return app;
}

pkt_ctx packet(const char *src, uint16_t src_port, const char *dst, uint16_t dst_port,
               uint8_t protocol) {
    pkt_ctx pkt = {};
    pkt.src_ip = ip(src);
    pkt.dst_ip = ip(dst);
    pkt.src_port = src_port;
    pkt.dst_port = dst_port;
    pkt.ip_proto = protocol;
    return pkt;
}

TEST_F(UserApps, EachCriterionOnBothSides) {
    userdef_app source_only = definition("app");
    source_only.src_family = 2;
    source_only.src_ip[0] = 99;
    source_only.src_port = 99;
    userdef_app ipv6 = definition("app", "10.0.0.0", "255.0.0.0");
    ipv6.dst_family = 10;
    userdef_app no_family = ipv6;
    no_family.dst_family = 3;
    const pkt_ctx to_net = packet("192.0.2.1", 40000, "10.1.2.3", 8080, 6);
    const pkt_ctx from_net = packet("10.1.2.3", 8080, "192.0.2.1", 40000, 6);
    const pkt_ctx elsewhere = packet("192.0.2.1", 40000, "11.1.2.3", 8081, 17);
    const struct {
        const char *what;
        userdef_app app;
        int to_net, from_net, elsewhere;
        uint8_t bitmap;
    } rows[] = {
        {"no criteria", definition("app"), 1, 1, 1, 0},
        {"network", definition("app", "10.0.0.0", "255.0.0.0"), 1, 1, 0, 0x04},
        {"network, host bits set", definition("app", "10.9.9.9", "255.0.0.0"), 1, 1, 0, 0x04},
        {"host", definition("app", "10.1.2.4", "255.255.255.255"), 0, 0, 0, 0x04},
        {"any network", definition("app", "10.0.0.0", "0.0.0.0"), 1, 1, 1, 0x04},
        {"IPv6 counts by its first word", ipv6, 1, 1, 0, 0x04},
        {"another family is none", no_family, 1, 1, 1, 0},
        {"port", definition("app", nullptr, nullptr, 8080), 1, 1, 0, 0x08},
        {"TCP", definition("app", nullptr, nullptr, 0, 6), 1, 1, 0, 0x10},
        {"UDP", definition("app", nullptr, nullptr, 0, 17), 0, 0, 1, 0x10},
        {"another protocol is none", definition("app", nullptr, nullptr, 0, 1), 1, 1, 1, 0},
        {"all, one fails", definition("app", "10.0.0.0", "255.0.0.0", 8080, 17), 0, 0, 0, 0x1C},
        {"source restricts nothing", source_only, 1, 1, 1, 0x03},
    };
    for (const auto &row : rows) {
        userdef_app app = row.app;
        app.bitmap = 0xFF; // what a payload claims doesn't count
        ASSERT_EQ(set_definitions({app}), 0);
        const userdef_app &stored = jorn_state.userdef_apps.records[0];
        EXPECT_EQ(stored.bitmap, row.bitmap) << row.what;
        for (const auto &[pkt, expected] : {std::pair{to_net, row.to_net},
                                            {from_net, row.from_net},
                                            {elsewhere, row.elsewhere}}) {
            EXPECT_EQ(jorn_is_pkt_match_userdef_app(&pkt, &stored), expected) << row.what;
            EXPECT_EQ(find_userdef_app(pkt) != nullptr, expected == 1) << row.what;
        }
    }
}

TEST_F(UserApps, MatchTagsThePacket) {
    set_definitions(
        {definition("other", nullptr, nullptr, 1), definition("Mine"), definition("later")});
    pkt_ctx pkt = {};
    pkt.detect_flags = 0x10;
    ASSERT_EQ(jorn_detect_pkt_userdef_app(&pkt), 1);
    EXPECT_STREQ(pkt.app_name, "Mine");
    EXPECT_EQ(pkt.detect_flags, 0x12);
    EXPECT_EQ(pkt.app_source, APP_SOURCE_USERDEF);
    EXPECT_EQ(pkt.app_id, 1201);
    EXPECT_EQ(pkt.app_cat_id, 0x8000);
    EXPECT_EQ(pkt.match_info, 1u);
}

TEST_F(UserApps, DefinitionsNeedTheirPolicy) {
    set_definitions({definition("a"), definition("b")});
    add_policy(1, {{"User Defined", "b"}});
    add_policy(2, {{"Streaming", "a"}, {"user defined", "a"}, {"User Defined", "A"}});
    add_policy(63, {{"", ""}, {"User Defined", "a"}, {"User Defined", "b"}});
    add_policy(64, {});
    const struct {
        uint32_t src_utp, dst_utp;
        const char *name; // none: no match
    } rows[] = {
        {0, 0, "a"},  {1, 0, "b"},  {2, 0, "a"},          {2, 2, nullptr},
        {2, 1, "b"},  {1, 63, "b"}, {63, 1, "a"},         {2, 64, "a"},
        {64, 2, "a"}, {5, 2, "a"},  {2, 0xFFFFFFFF, "a"},
    };
    for (const auto &row : rows) {
        for (const bool debug : {false, true}) {
            pkt_ctx pkt = {};
            pkt.src_utp_id = row.src_utp;
            pkt.dst_utp_id = row.dst_utp;
            jorn_state.settings.debug = debug;
            EXPECT_EQ(jorn_detect_pkt_userdef_app(&pkt), row.name != nullptr);
            EXPECT_STREQ(pkt.app_name, row.name != nullptr ? row.name : "")
                << row.src_utp << " to " << row.dst_utp;
        }
    }
}

TEST_F(UserApps, EveryChangeOfTablesShowsInTheNextPacket) {
    pkt_ctx pkt = {};
    pkt.src_utp_id = pkt.dst_utp_id = 1;
    const auto found = [&pkt] {
        const userdef_app *app = find_userdef_app(pkt);
        return std::string(app != nullptr ? app->app_name : "-");
    };
    EXPECT_EQ(found(), "-");
    set_definitions({definition("a"), definition("b")});
    EXPECT_EQ(found(), "a");
    add_policy(1, {{"User Defined", "b"}});
    EXPECT_EQ(found(), "b");
    add_policy(1, {{"User Defined", "c"}});
    EXPECT_EQ(found(), "-");
    set_definitions({definition("c")});
    EXPECT_EQ(found(), "c");
    jorn_process_utp_flush();
    set_definitions({definition("d")});
    EXPECT_EQ(found(), "d");
    set_definitions({});
    EXPECT_EQ(found(), "-");
    EXPECT_EQ(jorn_state.userdef_apps.records[0].app_name[0], '\0');
}

TEST_F(UserApps, StartUpWritesTheTableItself) {
    jorn_state.userdef_apps.records[0] = definition("restored");
    jorn_state.userdef_apps.count = 1;
    EXPECT_NE(find_userdef_app(pkt_ctx{}), nullptr);
}

TEST_F(UserApps, Command6AtItsLimits) {
    std::vector<uint8_t> payload(1 + 4 + 33 * sizeof(userdef_app), 'n'); // unaligned, no NUL
    const auto send = [&payload](int32_t count) {
        memcpy(payload.data() + 1, &count, sizeof count);
        return jorn_process_cmd_userdef_policy_cfg_req(payload.data() + 1);
    };
    EXPECT_EQ(send(32), 0);
    EXPECT_EQ(platform.calls, std::vector<std::string>{"psms_rflow_reset_app_policy()"});
    EXPECT_EQ(jorn_state.userdef_apps.count, 32);
    EXPECT_EQ(strlen(jorn_state.userdef_apps.records[31].app_name), 65u);
    for (const int32_t count : {33, -1, INT32_MIN})
        EXPECT_EQ(send(count), -1);
    EXPECT_EQ(jorn_state.userdef_apps.count, 32);
    EXPECT_EQ(platform.calls.size(), 1u);

    memset(payload.data(), 0, payload.size());
    ASSERT_EQ(send(32), 0);
    pkt_ctx pkt = {};
    EXPECT_EQ(find_userdef_app(pkt), &jorn_state.userdef_apps.records[0]);
}

} // namespace
