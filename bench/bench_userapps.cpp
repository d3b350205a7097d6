// bench_userapps: what definitions, port-service entries and the policies that list them cost a
// packet that none of them names, from the capture's callback to the verdict, in memory; and what
// settling them costs when they change.
//
// Debugging is off. Goals: `tables` at most 2 times `empty`, `tables_and_policies` at most 1.5
// times `policies`.
#include "bench_platform.h"
#include "control/tables/arc_tables.h"
#include "core/state/state.h"
#include "core/text/text.h"
#include "frames.h"
#include "packet/capture.h"
#include "packet/decode/decode.h"
#include "packet/process.h"
#include "userapps/port_service.h"
#include "userapps/settle.h"
#include "userapps/userdef.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr unsigned FLOWS = 64;
constexpr uint32_t SRC_UTP = 7;
constexpr uint32_t DST_UTP = 8;
constexpr uint16_t FIRST_CLIENT_PORT = 40000;
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
        app.protocol = PROTOCOL_TCP;
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

std::string write_port_service_file() {
    const std::string path = "/tmp/bench_port_services." + std::to_string(getpid());
    FILE *file = fopen(path.c_str(), "w");
    for (unsigned i = 0; i < PORT_APPS_MAX; ++i)
        fprintf(file, "%u,%s,4,%u,%s\n", 10000 + i, i % 2 == 0 ? "tcp" : "udp", 2000 + i,
                app_name(100 + i).c_str());
    fclose(file);
    return path;
}

void add_port_apps() {
    const std::string path = write_port_service_file();
    jorn_parse_port_service_conf_file(path.c_str(), &jorn_state.port_apps);
    remove(path.c_str());
}

// A full policy: it lists every other definition and 48 entries.
void add_policy(uint32_t utp_id) {
    arc_policy_wire policy = {};
    policy.utp_id = utp_id;
    for (unsigned i = 0; i < ARC_RULES_PER_POLICY; ++i) {
        copy_text(policy.rules[i].cat_name, CATEGORY_NAME_USER_DEFINED);
        copy_text(policy.rules[i].app_name, app_name(i < 16 ? 2 * i : 100 + 20 * i));
    }
    __arc_policy_add_end(&policy);
}

std::vector<frame_bytes> make_frames() {
    std::vector<frame_bytes> frames;
    av_pkt_trailer trailer = plain_trailer();
    trailer.src_utp_id = SRC_UTP;
    trailer.dst_utp_id = DST_UTP;
    for (unsigned flow = 0; flow < FLOWS; ++flow) {
        frame_words words;
        words.src_ip = 0x0A000002 + flow;
        words.dst_ip = 0xC6120001 + flow;
        words.src_port = static_cast<uint16_t>(FIRST_CLIENT_PORT + flow);
        words.dst_port = SERVER_PORT;
        frames.push_back(make_frame(words, std::string(64, 'x')));
        append_trailer(frames.back(), trailer);
    }
    return frames;
}

void run_packets(benchmark::State &state, bool tables, bool policies) {
    clear_tables();
    if (tables) {
        add_definitions();
        add_port_apps();
    }
    if (policies) {
        add_policy(SRC_UTP);
        add_policy(DST_UTP);
    }
    const std::vector<frame_bytes> frames = make_frames();
    const uint64_t verdicts_before = bench_verdicts;
    uint64_t next = 0;
    for (auto _ : state) {
        const frame_bytes &frame = frames[next++ % FLOWS];
        const pcap_pkthdr header = capture_header(frame);
        jorn_pkt_callback(nullptr, &header, frame.data());
    }
    if (bench_verdicts - verdicts_before != next)
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
    add_policy(SRC_UTP);
    for (auto _ : state) {
        ++jorn_state.arc_generation;
        benchmark::DoNotOptimize(allowed_for(SRC_UTP));
    }
}

// Command 13 with a full file.
void read_port_service_file(benchmark::State &state) {
    const std::string path = write_port_service_file();
    for (auto _ : state)
        jorn_parse_port_service_conf_file(path.c_str(), &jorn_state.port_apps);
    remove(path.c_str());
}

} // namespace

BENCHMARK_CAPTURE(run_packets, empty, false, false);
BENCHMARK_CAPTURE(run_packets, tables, true, false);
BENCHMARK_CAPTURE(run_packets, policies, false, true);
BENCHMARK_CAPTURE(run_packets, tables_and_policies, true, true);
BENCHMARK(settle_tables);
BENCHMARK(settle_policy);
BENCHMARK(read_port_service_file);
BENCHMARK_MAIN();
