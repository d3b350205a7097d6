#include "userapps_fixture.h"

#include <arpa/inet.h>
#include <cstring>

namespace {

constexpr uint32_t INSIDE = 0x0A010203;
constexpr uint32_t OUTSIDE = 0x0B010203;

// `network` is the first byte of one with a mask of 8 bits.
userdef_app definition(const char *name, uint8_t network = 0, uint16_t port = 0,
                       uint32_t protocol = 0) {
    userdef_app app = {};
    copy_text(app.app_name, name);
    app.dst_family = network != 0 ? 2 : 3;
    app.dst_ip[0] = network;
    app.dst_ip[3] = 77; // outside the mask
    app.netmask = htonl(0xFF000000);
    app.dst_port = port;
    app.protocol = protocol;
    app.app_id = 1201;
    return app;
}

TEST_F(UserApps, EachCriterionOnBothSides) {
    userdef_app source_only = definition("app");
    source_only.src_family = 2;
    source_only.src_ip[0] = 99;
    source_only.src_port = 99;
    userdef_app any_network = definition("app", 99);
    any_network.netmask = 0;
    pkt_ctx to_net = packet(6, 40000, 8080);
    pkt_ctx from_net = packet(6, 8080, 40000);
    pkt_ctx elsewhere = packet(17, 40000, 8081);
    to_net.src_ip = from_net.dst_ip = elsewhere.src_ip = elsewhere.dst_ip = htonl(OUTSIDE);
    to_net.dst_ip = from_net.src_ip = htonl(INSIDE);
    const struct {
        const char *what;
        userdef_app app;
        int to_net, from_net, elsewhere;
        uint8_t bitmap;
    } rows[] = {
        {"network", definition("app", 10), 1, 1, 0, 0x04},
        {"any network", any_network, 1, 1, 1, 0x04},
        {"port", definition("app", 0, 8080), 1, 1, 0, 0x08},
        {"TCP", definition("app", 0, 0, 6), 1, 1, 0, 0x10},
        {"another protocol is none", definition("app", 0, 0, 1), 1, 1, 1, 0},
        {"all, the protocol fails", definition("app", 10, 8080, 17), 0, 0, 0, 0x1C},
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

} // namespace
