#include "core/state/state.h"
#include "userapps/builtin_ports.h"
#include "userapps_fixture.h"

#include <random>
#include <unistd.h>

namespace {

using texts = std::vector<std::string>;

using PortService = UserApps;

TEST_F(PortService, Holds1025Entries) {
    std::string content;
    for (int port = 1; port <= 1024; ++port)
        content += std::to_string(port) + ",tcp,1,2,a\n";
    EXPECT_EQ(load_ports(content + "1,tcp,9,9,b\n2000,udp,1,2,last\n"), 0);
    EXPECT_EQ(jorn_state.port_apps.count, 1025u);
    EXPECT_STREQ(find_port_app(packet(17, 7, 2000))->app_name, "last");
    // Full is full, also for a line that would only update.
    EXPECT_EQ(load_ports(content + "2000,udp,1,2,last\n1,tcp,9,9,b\n"), -1);
    EXPECT_EQ(jorn_state.port_apps.count, 1025u);
    EXPECT_STREQ(find_port_app(packet(6, 7, 1))->app_name, "a");
}

TEST_F(PortService, AFileEndsWhereItCantBeReadAndOneLineSaysSo) {
    jorn_settings.debug = 1; // the log goes to standard error
    load_ports("1,tcp,1,2,a\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(jorn_parse_port_service_conf_file("/proc/self/mem", &jorn_state.port_apps), 0);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("/proc/self/mem can't be read to its end"), std::string::npos) << log;
    EXPECT_EQ(log.rfind("jorn_parse_port_service_conf_file"), 0u) << log;
    EXPECT_EQ(jorn_state.port_apps.count, 0u);
}

// The settled look-ups against the walks, on tables made to overlap, and after every kind of
// change.
TEST_F(PortService, LookUpsFindWhatTheWalksFind) {
    std::mt19937 random(20240607);
    const auto below = [&random](uint32_t limit) {
        return static_cast<uint32_t>(random() % limit);
    };
    const auto name = [&] { return "app" + std::to_string(below(60)); };
    const auto change = [&](uint32_t kind) {
        if (kind == 0) {
            std::vector<userdef_app> apps(below(33));
            for (userdef_app &app : apps) {
                copy_text(app.app_name, name());
                app.dst_family = below(2) != 0 ? 2 : 0;
                app.dst_ip[0] = static_cast<uint8_t>(below(4));
                app.netmask = 0xFF;
                app.dst_port = static_cast<uint16_t>(below(3) != 0 ? 1 + below(40) : 0);
                app.protocol = below(3) != 0 ? (below(2) != 0 ? 6 : 17) : 0;
            }
            set_definitions(apps);
        } else if (kind == 1) {
            std::string content;
            for (uint32_t lines = below(1200); lines != 0; --lines)
                content += std::to_string(1 + below(lines % 2 != 0 ? 100 : 65534)) +
                           (below(2) != 0 ? ",tcp,1,1," : ",udp,1,1,") + name() + "\n";
            load_ports(content);
        } else if (kind == 2) {
            std::vector<arc_rule> rules(64);
            for (arc_rule &rule : rules)
                rule = rule_of(name(), below(2) != 0 ? "User Defined" : "Web");
            add_policy(1 + below(4), rules);
        } else if (below(4) == 0) {
            jorn_process_arc_policy_flush();
        }
    };
    unsigned definitions_found = 0;
    unsigned entries_found = 0;
    for (int round = 0; round < 100; ++round) {
        change(round < 3 ? static_cast<uint32_t>(round) : below(4));
        for (int i = 0; i < 100; ++i) {
            const uint8_t protocol = below(8) == 0 ? 1 : below(2) == 0 ? 6 : 17;
            pkt_ctx pkt = packet(protocol, static_cast<uint16_t>(below(120)),
                                 static_cast<uint16_t>(below(120)), below(6), below(6));
            pkt.src_ip = below(6);
            pkt.dst_ip = below(6);
            const userdef_app *app = walk_userdef_apps(pkt);
            const port_app *entry = walk_port_apps(pkt);
            ASSERT_EQ(find_userdef_app(pkt), app);
            ASSERT_EQ(find_port_app(pkt), entry);
            definitions_found += app != nullptr ? 1 : 0;
            entries_found += entry != nullptr ? 1 : 0;
        }
    }
    EXPECT_TRUE(definitions_found > 1000 && definitions_found < 9000) << definitions_found;
    EXPECT_TRUE(entries_found > 1000 && entries_found < 9000) << entries_found;
}

TEST_F(PortService, BuiltinLookUpReadsTheTableAsWritten) {
    const auto fits = [](const port_service &row, uint8_t protocol, uint16_t port) {
        return row.begin_port <= port && port <= row.end_port &&
               (protocol == 6 ? row.tcp_flag : row.udp_flag) != 0;
    };
    const port_service &last = builtin_port_app_table[BUILTIN_PORT_APPS];
    for (uint32_t i = 0; i < 2 * 65536; ++i) {
        const uint8_t protocol = i < 65536 ? 6 : 17;
        const auto dst_port = static_cast<uint16_t>(i);
        const uint16_t src_port = dst_port % 7 == 0 ? 123 : 40000;
        const port_service *row = builtin_port_app_table;
        while (row != &last && !fits(*row, protocol, dst_port) && !fits(*row, protocol, src_port))
            ++row;
        pkt_ctx pkt = packet(protocol, src_port, dst_port);
        ASSERT_EQ(jorn_detect_pkt_builtin_port_service_app(&pkt), row != &last) << dst_port;
        EXPECT_TRUE(equals_ignoring_case(field_text(pkt.app_name), row->app_name)) << dst_port;
    }
}

} // namespace
