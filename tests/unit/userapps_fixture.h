// Short ways to fill the tables of user-defined applications.
#pragma once

#include "fresh_state_fixture.h"
#include "support/memory_file.h"
#include "userapps/port_service.h"
#include "userapps/userdef.h"

class UserApps : public FreshState {
protected:
    void TearDown() override {
        FreshState::TearDown();
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

    static int set_definitions(const std::vector<userdef_app> &records) {
        return jorn_update_user_def_policy_cfg(records.data(),
                                               static_cast<int32_t>(records.size()));
    }

    // Reads a port-service file of this content.
    static int load_ports(const std::string &content) {
        const memory_file file(content);
        return jorn_parse_port_service_conf_file(file.path(), &jorn_state.port_apps);
    }
};
