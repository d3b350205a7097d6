// What the daemon's tables take of its own memory: filled as commands and packets fill them, first
// as on a large network, then as far as they go.
//
//     memory
//
// Counted is what malloc has handed out, its own words included, and the state block, in which the
// administrator's applications lie. On 32-bit machines the sums are to be at most 4 and 16 MB.
#include "control/tables/arc_tables.h"
#include "core/base/hash_table.h"
#include "core/dns/dns_cache.h"
#include "core/state/state.h"
#include "core/text/text.h"
#include "support/fresh_state.h"
#include "support/memory_file.h"
#include "userapps/port_service.h"
#include "webfilter/web_tables.h"
#include "wificalling/wificalling_tables.h"

#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <malloc.h>
#include <memory>
#include <string>

namespace {

constexpr uint32_t NAMES = 16'385; // as many as the cache takes
constexpr double LARGE_GOAL = 4e6;
constexpr double FULL_GOAL = 16e6;

struct amounts {
    uint32_t arc_policies;
    uint32_t web_policies;
    uint32_t carriers;
    uint32_t bindings; // of each kind
};
constexpr amounts LARGE = {64, 256, 64, 64};
constexpr amounts FULL = {ARC_POLICIES_MAX, WEB_POLICIES_MAX, WIFICALLING_POLICIES_MAX,
                          WEB_INTFS_MAX};

size_t allocated() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

std::string numbered(const char *what, uint32_t number) {
    return what + std::to_string(number);
}

void add_arc_policies(uint32_t count) {
    const auto policy = std::make_unique<arc_policy_wire>();
    for (unsigned n = 0; n < std::size(policy->rules); ++n)
        copy_text(policy->rules[n].app_name, numbered("www.example.", n));
    for (uint32_t i = 0; i < count; ++i) {
        policy->utp_id = i + 1;
        copy_text(policy->name, numbered("policy", i));
        copy_text(policy->uuid, numbered("uuid", i));
        __arc_policy_add_end(policy.get());
    }
}

void add_web_policies(uint32_t count) {
    const auto policy = std::make_unique<web_policy_wire>();
    policy->num_categories = WEB_CATEGORIES_MAX;
    policy->num_whitelist = policy->num_blacklist = WEB_PATTERNS_MAX;
    for (unsigned n = 0; n < WEB_PATTERNS_MAX; ++n) {
        copy_text(policy->whitelist[n], numbered("*.good.example.", n));
        copy_text(policy->blacklist[n], numbered("*.bad.example.", n));
    }
    for (uint32_t i = 0; i < count; ++i) {
        copy_text(policy->name, numbered("policy", i));
        copy_text(policy->uuid, numbered("uuid", i));
        __web_find_intf_and_build_utp_for_pcy(policy.get());
    }
}

void add_carriers(uint32_t count) {
    const auto carrier = std::make_unique<wificalling_policy_wire>();
    carrier->num_epdg = EPDGS_PER_POLICY;
    for (uint32_t i = 0; i < count; ++i) {
        for (epdg_entry &epdg : carrier->epdg)
            copy_text(epdg.fqdn, numbered("epdg.epc.example.", i));
        copy_text(carrier->pname, numbered("carrier", i));
        jorn_process_wificalling_policy_cfg(*carrier);
    }
}

void add_bindings(uint32_t count) {
    web_intf_wire web = {};
    web.enable = 1;
    web.op = WEB_INTF_ADD;
    wificalling_intf_wire calling = {};
    calling.enable = 1;
    calling.num_profiles = PROFILES_PER_INTF;
    for (auto &profile : calling.profile)
        copy_text(profile, "carrier0");
    for (uint32_t i = 0; i < count; ++i) {
        copy_text(web.ifname, numbered("wlan", i));
        copy_text(web.policy_uuid, "uuid0");
        jorn_process_web_intf_config(&web);
        copy_text(calling.ifname, numbered("wlan", i));
        jorn_process_wificalling_intf_config(calling);
    }
}

void add_port_services() {
    std::string content;
    for (uint32_t i = 0; i < PORT_APPS_MAX; ++i)
        content += std::to_string(1 + i) + ",tcp," + std::to_string(i + 1) + ",2," +
                   numbered("service", i) + "\n";
    const memory_file file(content);
    jorn_parse_port_service_conf_file(file.path(), &jorn_state.port_apps);
}

void add_names() {
    for (uint32_t i = 0; i < NAMES; ++i)
        learn_dns_name(0x0A00'0000 + i, numbered("name", i));
}

// Ends the program where the table holds other than was added.
template <typename Add>
size_t taken(const char *what, uint32_t count, Add add, const uint32_t &held) {
    const size_t before = allocated();
    add();
    const size_t bytes = allocated() - before;
    if (held != count) {
        fprintf(stderr, "memory: of %u %s the daemon holds %u\n", count, what, held);
        exit(1);
    }
    printf("%8u %-24s %10zu bytes, %7.0f each\n", count, what, bytes,
           static_cast<double>(bytes) / count);
    return bytes;
}

size_t fill(const amounts &of) {
    fresh_state();
    silence_log();
    daemon_state &state = jorn_state;
    uint32_t names = 0;
    size_t all = sizeof state;
    printf("%8u %-24s %10zu bytes\n", 1, "state block", sizeof state);
    all += taken(
        "names from DNS", NAMES,
        [&] {
            jorn_dnscache_hash_table_init();
            add_names();
            names = static_cast<uint32_t>(state.dns_cache->count);
        },
        names);
    all += taken(
        "ARC policies", of.arc_policies, [&] { add_arc_policies(of.arc_policies); },
        state.arc_policy_list.count);
    all += taken(
        "web policies", of.web_policies, [&] { add_web_policies(of.web_policies); },
        state.web_policy_list.count);
    all += taken(
        "carriers", of.carriers, [&] { add_carriers(of.carriers); },
        state.wificalling_policy_list.count);
    all += taken(
        "bindings of each kind", of.bindings, [&] { add_bindings(of.bindings); },
        state.wificalling_intf_list.count);
    all += taken("port services", PORT_APPS_MAX, add_port_services, state.port_apps.count);
    return all;
}

void forget() {
    jorn_process_arc_policy_flush();
    jorn_process_web_policy_flush();
    jorn_state.web_intf_list.release_all();
    jorn_process_wificalling_policy_flush();
    jorn_state.wificalling_intf_list.release_all();
    port_app_list_clear(&jorn_state.port_apps);
    dns_cache_free();
}

} // namespace

int main() {
    printf("%zu-bit\n", sizeof(void *) * 8);
    const auto large = static_cast<double>(fill(LARGE));
    printf("a large network: %.2f MB\n\n", large / 1e6);
    forget();
    const auto full = static_cast<double>(fill(FULL));
    printf("everything at its bound: %.2f MB\n", full / 1e6);
    forget();
    return sizeof(void *) == 4 && (large > LARGE_GOAL || full > FULL_GOAL) ? 1 : 0;
}
