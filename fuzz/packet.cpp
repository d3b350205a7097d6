// Frame bytes and trailer through the whole packet path, with debugging off and on (the lines
// are formatted and dropped), against policies that fit some of what comes.
#include "control/tables/arc_tables.h"
#include "core/base/hash_table.h"
#include "core/dns/dns_cache.h"
#include "hostile_answers.h"
#include "packet/capture.h"
#include "packet/decode/decode.h"
#include "packet/process.h"
#include "support/fresh_state.h"
#include "support/memory_file.h"
#include "support/policies.h"
#include "userapps/port_service.h"
#include "userapps/userdef.h"
#include "webfilter/web_tables.h"
#include "wificalling/wificalling_tables.h"

#include <cstdint>
#include <cstring>
#include <memory>

namespace {

arc_rule domain_rule(const char *domain, uint8_t deny, uint8_t qos, uint16_t rate = 0) {
    arc_rule rule = rule_of(domain);
    rule.deny = deny;
    rule.qos = qos;
    rule.rate_down = rate;
    return rule;
}

// Every outcome, by name and by id, and a policy that lists an application of the administrator.
void add_policies() {
    arc_rule by_id = domain_rule("id", 0, 0xFF);
    by_id.app_id = 2;
    add_policy(1, {domain_rule("com", 1, 0), domain_rule("example", 0, 1)});
    add_policy(2, {by_id, domain_rule("a", 0, 2, 7), domain_rule("10.", 0, 0)});
    add_policy(4, {rule_of("Till", CATEGORY_NAME_USER_DEFINED),
                   rule_of("Portal", CATEGORY_NAME_USER_DEFINED)});
    for (arc_policy &policy : jorn_state.arc_policy_list)
        policy.log_enable = 1;
}

void add_applications() {
    userdef_app apps[3] = {};
    copy_text(apps[0].app_name, "Clock");
    apps[0].dst_family = 2;
    memcpy(apps[0].dst_ip, "\x0A\x09\0\0", 4);
    apps[0].netmask = 0x0000FFFF;
    copy_text(apps[1].app_name, "Till");
    apps[1].dst_port = 8443;
    apps[1].protocol = 6;
    copy_text(apps[2].app_name, "Door");
    apps[2].dst_port = 8444;
    jorn_update_user_def_policy_cfg(apps, 3);
    const memory_file services(
        "9000,tcp,4,1201,Portal\n9000,udp,4,1202,Other\n9001,tcp,1,1,More\n");
    jorn_parse_port_service_conf_file(services.path(), &jorn_state.port_apps);
}

// Patterns of every form, categories, and interfaces with and without a policy.
void add_web_policies() {
    web_policy_wire policy = {};
    strcpy(policy.uuid, "u");
    policy.utp_id = 3;
    policy.num_categories = 2;
    policy.categories[0] = 4;
    policy.categories[1] = 0x10004;
    policy.num_whitelist = policy.num_blacklist = 3;
    constexpr const char *PATTERNS[] = {"*.white*", "w*", "*.net.*"};
    for (size_t i = 0; i < 3; ++i) {
        strcpy(policy.whitelist[i], PATTERNS[i]);
        strcpy(policy.blacklist[i], i < 2 ? "*.black" : "");
    }
    __web_find_intf_and_build_utp_for_pcy(&policy);
    web_intf_wire binding = {};
    binding.enable = 1;
    binding.op = WEB_INTF_ADD;
    for (const char *ifname : {"wlan0", "sixteen-letters."}) {
        strcpy(binding.ifname, ifname);
        jorn_process_web_intf_config(&binding);
        strcpy(binding.policy_uuid, "u");
    }
    strcpy(jorn_settings.video_stream_domain, "cdn");
}

void add_carrier() {
    wificalling_policy_wire carrier = {2,  {},        3, {{"epdg.example", 0x0502000A}, {"aa", 0}},
                                       "", "carrier", {}};
    wificalling_intf_wire binding = {1, "wlan0", 0, 1, {"Carrier"}, {}, {}};
    jorn_process_wificalling_policy_cfg(carrier);
    jorn_process_wificalling_intf_config(binding);
}

void set_up() {
    silence_log();
    jorn_pkt_processor = jorn_decode_eth_pkt;
    jorn_dnscache_hash_table_init();
    jorn_settings.tm_engine_enabled = 1;
    add_policies();
    add_applications();
    add_web_policies();
    add_carrier();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool ready = (set_up(), true);
    (void)ready;
    if (size > 65535)
        return 0;
    hostile_platform();
    // A copy of exactly the captured size: a read beyond it is caught.
    const auto captured = std::make_unique<uint8_t[]>(size);
    memcpy(captured.get(), data, size);
    pcap_pkthdr header = {};
    header.caplen = header.len = static_cast<uint32_t>(size);
    for (const uint8_t debug : {uint8_t{0}, uint8_t{1}}) {
        jorn_settings.debug = debug;
        jorn_state.reachable_flag = debug;
        jorn_pkt_callback(nullptr, &header, captured.get());
    }
    hash_table_clear(jorn_state.dns_cache); // what was learnt
    return 0;
}
