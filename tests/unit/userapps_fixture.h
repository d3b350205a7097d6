// Empty tables, and short ways to fill them, for the tests of user-defined applications.
#pragma once

#include "control/arc_tables.h"
#include "core/state.h"
#include "core/text.h"
#include "fake_platform.h"
#include "userapps/port_service.h"
#include "userapps/userdef.h"

#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

class UserApps : public testing::Test {
protected:
    using rule_names = std::vector<std::pair<std::string, std::string>>; // category, application

    void SetUp() override {
        jorn_state = {};
        platform = {};
    }
    void TearDown() override {
        jorn_process_arc_policy_flush();
        port_app_list_clear(&jorn_state.port_apps);
    }

    static pkt_ctx packet(uint8_t protocol, uint16_t src_port, uint16_t dst_port,
                          uint32_t src_utp_id = 0, uint32_t dst_utp_id = 0) {
        pkt_ctx pkt = {};
        pkt.ip_proto = protocol;
        pkt.src_port = src_port;
        pkt.dst_port = dst_port;
        pkt.src_utp_id = src_utp_id;
        pkt.dst_utp_id = dst_utp_id;
        return pkt;
    }

    // Gives a UTP a policy, as command 23 does.
    static void add_policy(uint32_t utp_id, const rule_names &rules) {
        arc_policy_wire policy = {};
        policy.utp_id = utp_id;
        copy_text(policy.name, "policy");
        for (size_t i = 0; i < rules.size(); ++i) {
            copy_text(policy.rules[i].cat_name, rules[i].first);
            copy_text(policy.rules[i].app_name, rules[i].second);
        }
        __arc_policy_add_end(reinterpret_cast<const uint8_t *>(&policy));
    }

    static int set_definitions(const std::vector<userdef_app> &records) {
        return jorn_update_user_def_policy_cfg(reinterpret_cast<const uint8_t *>(records.data()),
                                               static_cast<int32_t>(records.size()));
    }

    // Reads a port-service file of this content.
    static int load_ports(const std::string &content) {
        const std::string path = testing::TempDir() + "port_services." + std::to_string(getpid());
        FILE *file = fopen(path.c_str(), "w");
        fwrite(content.data(), 1, content.size(), file);
        fclose(file);
        const int result = jorn_parse_port_service_conf_file(path.c_str(), &jorn_state.port_apps);
        remove(path.c_str());
        return result;
    }
};
