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
#include "support/policies.h"
#include "webfilter/web_tables.h"
#include "wificalling/wificalling_tables.h"

#include <cstdint>
#include <cstring>
#include <memory>

namespace {

void add_logged_policy(uint32_t utp_id, const char *domain, uint16_t app_id) {
    arc_policy_wire policy = {};
    policy.utp_id = utp_id;
    policy.log_enable = 1;
    policy.rules[0] = rule_of(domain);
    policy.rules[0].deny = 1;
    policy.rules[1] = rule_of("id");
    policy.rules[1].app_id = app_id;
    policy.rules[1].qos = 0xFF;
    add_policy(policy);
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
    add_logged_policy(1, "com", 1);
    add_logged_policy(2, "a", 2);
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
