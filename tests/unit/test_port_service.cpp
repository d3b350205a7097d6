#include "userapps/builtin_ports.h"
#include "userapps_fixture.h"

#include <random>
#include <unistd.h>

namespace {

using texts = std::vector<std::string>;

texts listed() {
    texts entries;
    for (const port_app *entry = jorn_state.port_apps.head; entry != nullptr; entry = entry->next) {
        EXPECT_EQ(entry->begin_port, entry->end_port);
        EXPECT_EQ(entry->tcp_flag + entry->udp_flag, 1);
        entries.push_back(std::string(entry->app_name) + " " + std::to_string(entry->begin_port) +
                          (entry->tcp_flag != 0 ? " tcp " : " udp ") +
                          std::to_string(entry->cat_id) + " " + std::to_string(entry->app_id));
    }
    EXPECT_EQ(entries.size(), jorn_state.port_apps.port_app_count);
    return entries;
}

using PortService = UserApps;

TEST_F(PortService, LinesOfEveryShape) {
    using std::string_literals::operator""s;
    const std::string x64(64, 'x');
    const std::string blanks(64, ' ');
    const struct {
        const char *what;
        std::string content;
        texts entries;
    } rows[] = {
        {"no line feed, CR, blanks, low 16 bits",
         " 8443 , UdP,65537 ,-1,  My Portal \r",
         {"My Portal 8443 udp 1 65535"}},
        {"version", "WDL_PORT_SERVICE_FILE_VER:1.0\n80,tcp,1,2,WDL_PORT_SERVICE_FILE_VER:\n", {}},
        {"empty fields vanish, further ones too", ",80,,tcp,1,,,2,a,b,c\n", {"a 80 tcp 1 2"}},
        {"ports",
         "0,tcp,1,2,a\n65535,tcp,1,2,b\n65534,tcp,1,2,c\n1,tcp,1,2,d\n-1,tcp,1,2,e\n"
         "65616,tcp,1,2,f\n4294967376,tcp,1,2,g\nx,tcp,1,2,h\n",
         {"c 65534 tcp 1 2", "d 1 tcp 1 2"}},
        {"no value of an earlier line",
         "80,tcp,1,2,a\n81,icmp,1,2,b\n82,tcpx,1,2,c\n83,1,2,d\n",
         {"a 80 tcp 1 2"}},
        {"fields are cut, then trimmed",
         "80,tcp,1,2," + x64 + "y\n81,tcp,1,2," + blanks + "y\n",
         {x64 + " 80 tcp 1 2"}},
        {"line is cut at 1,023",
         "80,tcp,1,2,a" + std::string(1011, ' ') + ",\n81,tcp,1,2," + std::string(1100, ' ') +
             ",82,tcp,1,2,c\n82,tcp,1,2,b\n",
         {"a 80 tcp 1 2", "b 82 tcp 1 2"}},
        {"NUL bytes",
         "\0\n80,tcp,1,2,a\0b\n81,tcp\0,1,2,c\n82,tcp,1,2,d\n"s,
         {"a 80 tcp 1 2", "d 82 tcp 1 2"}},
        {"by name, later first among equals",
         "1,tcp,1,1,m\n2,tcp,1,1,M\n3,tcp,1,1,m\n4,tcp,1,1,a\n",
         {"M 2 tcp 1 1", "a 4 tcp 1 1", "m 3 tcp 1 1", "m 1 tcp 1 1"}},
        {"an update keeps its place, protocols apart",
         "80,TCP,1,2,b\n80,udp,1,3,c\n80,tcp,7,8,z\n81,tcp,1,1,d\n",
         {"d 81 tcp 1 1", "z 80 tcp 7 8", "c 80 udp 1 3"}},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(load_ports(row.content), 0) << row.what;
        EXPECT_EQ(listed(), row.entries) << row.what;
    }
}

TEST_F(PortService, Holds1025Entries) {
    std::string content;
    for (int port = 1; port <= 1024; ++port)
        content += std::to_string(port) + ",tcp,1,2,a\n";
    EXPECT_EQ(load_ports(content + "1,tcp,9,9,b\n2000,udp,1,2,last\n"), 0);
    EXPECT_EQ(jorn_state.port_apps.port_app_count, 1025u);
    EXPECT_STREQ(find_port_app(packet(17, 7, 2000))->app_name, "last");
    // Full is full, also for a line that would only update.
    EXPECT_EQ(load_ports(content + "2000,udp,1,2,last\n1,tcp,9,9,b\n"), -1);
    EXPECT_EQ(jorn_state.port_apps.port_app_count, 1025u);
    EXPECT_STREQ(find_port_app(packet(6, 7, 1))->app_name, "a");
}

TEST_F(PortService, UnopenableFileIsRemovedAndTheListStays) {
    ASSERT_EQ(load_ports("80,tcp,1,2,a\n"), 0);
    const std::string path = testing::TempDir() + "dangling." + std::to_string(getpid());
    ASSERT_EQ(symlink("nowhere", path.c_str()), 0);
    EXPECT_EQ(jorn_parse_port_service_conf_file(path.c_str(), &jorn_state.port_apps), -9);
    EXPECT_NE(unlink(path.c_str()), 0);
    EXPECT_EQ(listed(), texts{"a 80 tcp 1 2"});
    EXPECT_NE(find_port_app(packet(6, 80, 1)), nullptr);
    // A directory opens, and then can't be read.
    EXPECT_EQ(jorn_parse_port_service_conf_file("/", &jorn_state.port_apps), -9);
    EXPECT_EQ(find_port_app(packet(6, 80, 1)), nullptr);
}

TEST_F(PortService, EntriesNameThePortsOfBothSidesAndNeedTheirPolicy) {
    load_ports("80,tcp,1,11,b\n90,tcp,1,12,a\n80,udp,1,13,u\n100,tcp,1,14,z\n");
    add_policy(1, {rule_of("b", "User Defined"), rule_of("z", "Streaming")});
    add_policy(2, {rule_of("nothing", "User Defined")});
    const struct {
        uint8_t protocol;
        uint16_t src_port, dst_port;
        uint32_t src_utp, dst_utp;
        uint16_t app_id; // 0 = no match
    } rows[] = {
        {6, 5000, 80, 0, 0, 11}, {6, 80, 5000, 0, 0, 11}, {17, 5000, 80, 0, 0, 13},
        {1, 80, 80, 0, 0, 0},    {6, 90, 80, 0, 0, 12},   {6, 90, 80, 1, 0, 11},
        {6, 90, 80, 2, 1, 11},   {6, 90, 80, 2, 2, 0},    {6, 100, 1, 1, 3, 14},
    };
    for (const auto &row : rows) {
        pkt_ctx pkt = packet(row.protocol, row.src_port, row.dst_port, row.src_utp, row.dst_utp);
        EXPECT_EQ(jorn_detect_pkt_userdef_port_service_app(&pkt), row.app_id != 0);
        EXPECT_EQ(pkt.app_id, row.app_id) << row.src_port << " to " << row.dst_port;
        EXPECT_EQ(pkt.app_source, row.app_id != 0 ? APP_SOURCE_USER_PORT : 0);
        EXPECT_EQ(pkt.match_info, row.app_id != 0 ? 1u : 0u);
    }
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
