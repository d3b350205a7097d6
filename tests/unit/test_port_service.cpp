#include "core/state/state.h"
#include "support/fresh_state.h"
#include "support/memory_file.h"
#include "userapps/builtin_ports.h"
#include "userapps/port_service.h"
#include "userapps/userdef.h"

#include <gtest/gtest.h>

namespace {

class PortService : public testing::Test {
protected:
    void SetUp() override { fresh_state(); }
    void TearDown() override { port_app_list_clear(&jorn_state.port_apps); }

    static pkt_ctx packet(uint8_t protocol, uint16_t src_port, uint16_t dst_port) {
        pkt_ctx pkt = {};
        pkt.ip_proto = protocol;
        pkt.src_port = src_port;
        pkt.dst_port = dst_port;
        return pkt;
    }

    static int load_ports(const std::string &content) {
        const memory_file file(content);
        return jorn_parse_port_service_conf_file(file.path(), &jorn_state.port_apps);
    }
};

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
    testing::internal::CaptureStderr();
    load_ports("WDL_PORT_SERVICE_FILE_VER:1\x1b[2J\n1,tcp,1,2,a\n");
    EXPECT_NE(testing::internal::GetCapturedStderr().find("version: 1?[2J"), std::string::npos);
    testing::internal::CaptureStderr();
    EXPECT_EQ(jorn_parse_port_service_conf_file("/proc/self/mem", &jorn_state.port_apps), 0);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("/proc/self/mem can't be read to its end"), std::string::npos) << log;
    EXPECT_EQ(log.rfind("jorn_parse_port_service_conf_file"), 0u) << log;
    EXPECT_EQ(jorn_state.port_apps.count, 0u);
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
