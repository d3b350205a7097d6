// bench_userapps: what definitions, port-service entries and the policies that list them cost a
// packet that none of them names, from the capture's callback to the verdict, in memory; and what
// settling them costs when they change.
//
// Debugging is off.
#include "control/tables/arc_tables.h"
#include "core/state/state.h"
#include "core/text/text.h"
#include "flows.h"
#include "report.h"
#include "support/fake_platform.h"
#include "support/memory_file.h"
#include "support/policies.h"
#include "userapps/port_service.h"
#include "userapps/settle.h"
#include "userapps/userdef.h"

#include <benchmark/benchmark.h>
#include <string>
#include <vector>

namespace {

constexpr bench_goal GOALS[] = {
    {"run_packets/tables", "run_packets/empty", 2},
    {"run_packets/tables_and_policies", "run_packets/policies", 1.5},
};
constexpr unsigned FLOWS = 64;
constexpr uint32_t SRC_UTP = 7;
constexpr uint32_t DST_UTP = 8;
constexpr uint16_t SERVER_PORT = 9999; // no built-in service either

std::string app_name(unsigned number) {
    return "Intranet-Application-" + std::to_string(number) + ".corp.example.com";
}

void clear_tables() {
    jorn_process_arc_policy_flush();
    jorn_process_utp_flush();
    port_app_list_clear(&jorn_state.port_apps);
    jorn_update_user_def_policy_cfg(nullptr, 0);
    jorn_pkt_processor = jorn_decode_eth_pkt;
}

// Networks, ports and protocols in turn, so that each criterion is the one that fails.
void add_definitions() {
    userdef_app apps[USERDEF_APPS_MAX] = {};
    for (unsigned i = 0; i < USERDEF_APPS_MAX; ++i) {
        userdef_app &app = apps[i];
        copy_text(app.app_name, app_name(i));
        app.app_id = static_cast<uint16_t>(1000 + i);
        app.cat_id = CATEGORY_USER_DEFINED;
        app.protocol = IPPROTO_TCP;
        app.dst_port = static_cast<uint16_t>(i % 2 == 0 ? 443 : SERVER_PORT);
        if (i % 2 == 0)
            continue;
        app.dst_family = 2;
        app.dst_ip[0] = 172;
        app.dst_ip[1] = static_cast<uint8_t>(i);
        app.netmask = 0x0000FFFF;
    }
    jorn_update_user_def_policy_cfg(apps, USERDEF_APPS_MAX);
}

std::string port_service_lines() {
    std::string lines;
    for (unsigned i = 0; i < PORT_APPS_MAX; ++i)
        lines += std::to_string(10000 + i) + (i % 2 == 0 ? ",tcp,4," : ",udp,4,") +
                 std::to_string(2000 + i) + ',' + app_name(100 + i) + '\n';
    return lines;
}

void add_port_apps() {
    const memory_file file(port_service_lines());
    jorn_parse_port_service_conf_file(file.path(), &jorn_state.port_apps);
}

// A full policy: it lists every other definition and 48 entries.
void add_listing_policy(uint32_t utp_id) {
    std::vector<arc_rule> rules;
    for (unsigned i = 0; i < ARC_RULES_PER_POLICY; ++i)
        rules.push_back(
            rule_of(app_name(i < 16 ? 2 * i : 100 + 20 * i), CATEGORY_NAME_USER_DEFINED));
    add_policy(utp_id, rules);
}

std::vector<octets> make_frames() {
    av_pkt_trailer trailer = plain_trailer();
    trailer.src_utp_id = SRC_UTP;
    trailer.dst_utp_id = DST_UTP;
    const auto frame = [](uint32_t flow) {
        return ethernet(0x0800, flow_packet(flow, IPPROTO_TCP, SERVER_PORT));
    };
    return flow_frames(FLOWS, frame, trailer);
}

void run_packets(benchmark::State &state, bool tables, bool policies) {
    clear_tables();
    if (tables) {
        add_definitions();
        add_port_apps();
    }
    if (policies) {
        add_listing_policy(SRC_UTP);
        add_listing_policy(DST_UTP);
    }
    const std::vector<octets> frames = make_frames();
    platform.verdicts = 0;
    uint64_t next = 0;
    for (auto _ : state)
        judge(frames[next++ % FLOWS]);
    if (platform.verdicts != next)
        state.SkipWithError("packets without a verdict");
}

// What a command that changes the tables adds to its own work.
void settle_tables(benchmark::State &state) {
    clear_tables();
    add_definitions();
    add_port_apps();
    for (auto _ : state)
        settle_userapps();
}

// What the first packet of a UTP waits for after a change: its policy's rules.
void settle_policy(benchmark::State &state) {
    clear_tables();
    add_definitions();
    add_port_apps();
    add_listing_policy(SRC_UTP);
    for (auto _ : state) {
        ++jorn_state.arc_generation;
        benchmark::DoNotOptimize(allowed_for(SRC_UTP));
    }
}

// Command 13 with a full file.
void read_port_service_file(benchmark::State &state) {
    const memory_file file(port_service_lines());
    for (auto _ : state)
        jorn_parse_port_service_conf_file(file.path(), &jorn_state.port_apps);
}

} // namespace

BENCHMARK_CAPTURE(run_packets, empty, false, false);
BENCHMARK_CAPTURE(run_packets, tables, true, false);
BENCHMARK_CAPTURE(run_packets, policies, false, true);
BENCHMARK_CAPTURE(run_packets, tables_and_policies, true, true);
BENCHMARK(settle_tables);
BENCHMARK(settle_policy);
BENCHMARK(read_port_service_file);

int main(int argc, char *argv[]) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return EXIT_FAILURE;
    platform.is_thorough = false;
    return run_benchmarks(GOALS, 0);
}
