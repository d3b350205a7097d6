// packet_path: the daemon's way of a packet in memory, in nanoseconds of CPU time a packet.
//
//   packet_path [--benchmark_filter=REGEX] ... [shortly]
//
// Inside scripts/private it measures B first, the bare capture loop's CPU time a packet on the live
// path, and prints the figures beside the goals that are fractions of it. The platform is one that
// answers at once; debugging is off.
#include "control/tables/arc_tables.h"
#include "dns_cases.h"
#include "flows.h"
#include "lab.h"
#include "live_path.h"
#include "packet/records/context.h"
#include "report.h"
#include "support/fake_platform.h"
#include "support/policies.h"
#include "web_cases.h"

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <string_view>

namespace {

constexpr unsigned FLOWS = 64;
static_assert(FLOWS <= DNS_CACHE_CAPACITY);
constexpr unsigned BARE_RUNS = 5;
constexpr uint64_t BARE_PACKETS = 200'000;
constexpr uint32_t SRC_UTP = 5;
constexpr uint32_t DST_UTP = 6;

constexpr bench_goal GOALS[] = {
    {"verdict/tcp", "B", 1.0 / 20},
    {"arc/source", "arc/empty", 3},
    {"arc/both", "arc/empty", 3},
    {"url/full", "url/empty", 1.5},
    {"dns/by_destination", "B", 1.0 / 15},
    {"dns/by_source", "B", 1.0 / 10},
    {"dns/two_misses_full", "B", 1.0 / 8},
    {"hash/find_crafted", "hash/find_random", 1, 1},
    {"hash/insert_crafted", "hash/insert_random", 1, 1},
};

// A case: its frames and the daemon's state before them.
struct packet_case {
    const char *name;
    octets (*frame)(uint32_t flow);
    void (*set_up)();
};

octets udp_frame(uint32_t flow) {
    return ethernet(0x0800, flow_packet(flow, IPPROTO_UDP));
}

octets vlan_frame(uint32_t flow) {
    return vlan(0x0800, flow_packet(flow));
}

octets pppoe_frame(uint32_t flow) {
    return pppoe(0x0021, flow_packet(flow));
}

octets redirect_frame(uint32_t flow) {
    const octets segment = tcp(80, 40000 + flow, http_redirect_to(0xC6130001 + flow), 0x10);
    return ethernet(0x0800, ipv4(IPPROTO_TCP, segment, {SERVERS + flow, CLIENTS + flow}), false);
}

void empty_configuration() {
    jorn_process_arc_policy_flush();
    jorn_process_utp_flush();
    empty_dns_cache();
}

// Without policies; the flows have names, so that policies have something to compare.
void named_flows() {
    empty_configuration();
    fill_dns_cache(FLOWS, named_side::destination);
}

// 64 domain rules, none of which fits.
void add_full_policy(uint32_t utp_id) {
    std::vector<arc_rule> rules;
    for (unsigned n = 0; n < ARC_RULES_PER_POLICY; ++n) {
        rules.push_back(rule_of("Shop" + std::to_string(n * 7 + utp_id) + ".Market-Place" +
                                std::to_string(n) + ".com"));
        rules.back().deny = 1;
    }
    add_policy(utp_id, rules);
}

void policy_of_source() {
    named_flows();
    add_full_policy(SRC_UTP);
}

void policies_of_both() {
    policy_of_source();
    add_full_policy(DST_UTP);
}

constexpr packet_case DECODE_CASES[] = {
    {"decode/tcp", flow_frame, empty_configuration},
    {"decode/udp", udp_frame, empty_configuration},
    {"decode/vlan", vlan_frame, empty_configuration},
    {"decode/pppoe", pppoe_frame, empty_configuration},
    {"decode/http_302", redirect_frame, empty_configuration},
};

constexpr packet_case VERDICT_CASES[] = {
    {"verdict/tcp", flow_frame, empty_configuration},
    {"verdict/udp", udp_frame, empty_configuration},
    {"verdict/vlan", vlan_frame, empty_configuration},
    {"verdict/pppoe", pppoe_frame, empty_configuration},
    {"verdict/http_302", redirect_frame, empty_configuration},
    {"arc/empty", flow_frame, named_flows},
    {"arc/source", flow_frame, policy_of_source},
    {"arc/both", flow_frame, policies_of_both},
};

std::vector<octets> frames_of(const packet_case &wanted) {
    av_pkt_trailer trailer = plain_trailer();
    trailer.src_utp_id = SRC_UTP;
    trailer.dst_utp_id = DST_UTP;
    return flow_frames(FLOWS, wanted.frame, trailer);
}

void time_decoding(benchmark::State &state, const packet_case &wanted) {
    const std::vector<octets> frames = frames_of(wanted);
    pkt_ctx ctx = {};
    size_t next = 0;
    for ([[maybe_unused]] auto _ : state) {
        const octets &frame = frames[next++ % FLOWS];
        const pcap_pkthdr header = capture_header(frame);
        jorn_decode_eth_pkt(&ctx, &header, frame.data());
        benchmark::DoNotOptimize(ctx.dst_ip);
        benchmark::ClobberMemory();
    }
}

void time_verdict(benchmark::State &state, const packet_case &wanted) {
    wanted.set_up();
    const std::vector<octets> frames = frames_of(wanted);
    platform.verdicts = 0;
    size_t next = 0;
    for ([[maybe_unused]] auto _ : state)
        judge(frames[next++ % FLOWS]);
    if (platform.verdicts != next || platform.last_verdict != AV_VERDICT_ALLOW)
        state.SkipWithError("a packet without its verdict, or another than allow");
    empty_configuration();
}

double measure_b(unsigned count, uint64_t packets) {
    if (!lab_is_private())
        return 0;
    lab_enter();
    const live_traffic traffic = {live_frames(plain_trailer()), {}, packets};
    std::vector<live_figures> runs;
    for (unsigned run = 0; run < count; ++run)
        runs.push_back(measure_bare_loop(traffic));
    return median_figures(runs).cpu_ns;
}

} // namespace

int main(int argc, char *argv[]) {
    benchmark::Initialize(&argc, argv);
    const bool shortly = argc == 2 && std::string_view(argv[1]) == "shortly";
    if (argc > 1 && !shortly) {
        benchmark::ReportUnrecognizedArguments(argc, argv);
        return EXIT_FAILURE;
    }
    for (const packet_case &wanted : DECODE_CASES)
        benchmark::RegisterBenchmark(wanted.name, time_decoding, wanted);
    for (const packet_case &wanted : VERDICT_CASES)
        benchmark::RegisterBenchmark(wanted.name, time_verdict, wanted);
    register_web_cases();
    register_dns_cases();

    const double bare_ns = shortly ? measure_b(1, 1000) : measure_b(BARE_RUNS, BARE_PACKETS);
    lab_pin(lab_choose_cpus().consumer);
    jorn_pkt_processor = jorn_decode_eth_pkt;
    platform.is_thorough = false;
    return run_benchmarks(GOALS, bare_ns);
}
