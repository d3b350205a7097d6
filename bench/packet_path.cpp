// packet_path: the daemon's way of a packet in memory, in nanoseconds of CPU time a packet.
//
//   packet_path [--benchmark_filter=REGEX] ...
//
// As root it measures B first, the bare capture loop's CPU time a packet on the live path, and
// prints the figures beside the goals that are fractions of it. The platform is one that answers at
// once; debugging is off.
#include "bench_platform.h"
#include "control/tables/arc_tables.h"
#include "core/state/state.h"
#include "core/text/text.h"
#include "dns_cases.h"
#include "frames.h"
#include "lab.h"
#include "live_path.h"
#include "packet/capture.h"
#include "packet/decode/decode.h"
#include "packet/process.h"
#include "report.h"
#include "web_cases.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstring>
#include <memory>
#include <unistd.h>

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
    frame_bytes (*frame)(unsigned flow);
    void (*set_up)();
};

const std::string PAYLOAD(64, 'x');

frame_bytes udp_frame(unsigned flow) {
    frame_words words = flow_words(flow);
    words.protocol = PROTOCOL_UDP;
    return make_frame(words, PAYLOAD);
}

frame_bytes vlan_frame(unsigned flow) {
    frame_words words = flow_words(flow);
    words.carried = encapsulation::vlan;
    return make_frame(words, PAYLOAD);
}

frame_bytes pppoe_frame(unsigned flow) {
    frame_words words = flow_words(flow);
    words.carried = encapsulation::pppoe;
    return make_frame(words, PAYLOAD);
}

frame_bytes redirect_frame(unsigned flow) {
    frame_words words = flow_words(flow);
    words.from_client = false;
    std::swap(words.src_ip, words.dst_ip);
    words.src_port = 80;
    words.dst_port = static_cast<uint16_t>(40000 + flow);
    return make_frame(words, http_redirect_to(0xC6130001 + flow));
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
    const auto policy = std::make_unique<arc_policy_wire>();
    policy->utp_id = utp_id;
    for (unsigned n = 0; n < ARC_RULES_PER_POLICY; ++n) {
        arc_rule &rule = policy->rules[n];
        const std::string domain =
            "Shop" + std::to_string(n * 7 + utp_id) + ".Market-Place" + std::to_string(n) + ".com";
        copy_text(rule.app_name, domain);
        rule.deny = 1;
    }
    __arc_policy_add_end(policy.get());
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

std::vector<frame_bytes> frames_of(const packet_case &wanted) {
    av_pkt_trailer trailer = plain_trailer();
    trailer.src_utp_id = SRC_UTP;
    trailer.dst_utp_id = DST_UTP;
    std::vector<frame_bytes> frames;
    for (unsigned flow = 0; flow < FLOWS; ++flow) {
        frames.push_back(wanted.frame(flow));
        append_trailer(frames.back(), trailer);
    }
    return frames;
}

void time_decoding(benchmark::State &state, const packet_case &wanted) {
    const std::vector<frame_bytes> frames = frames_of(wanted);
    pkt_ctx ctx = {};
    size_t next = 0;
    for ([[maybe_unused]] auto _ : state) {
        const frame_bytes &frame = frames[next++ % FLOWS];
        const pcap_pkthdr header = capture_header(frame);
        jorn_decode_eth_pkt(&ctx, &header, frame.data());
        benchmark::DoNotOptimize(ctx.dst_ip);
        benchmark::ClobberMemory();
    }
}

void time_verdict(benchmark::State &state, const packet_case &wanted) {
    wanted.set_up();
    const std::vector<frame_bytes> frames = frames_of(wanted);
    bench_verdicts = 0;
    size_t next = 0;
    for ([[maybe_unused]] auto _ : state) {
        const frame_bytes &frame = frames[next++ % FLOWS];
        const pcap_pkthdr header = capture_header(frame);
        jorn_pkt_callback(nullptr, &header, frame.data());
    }
    if (bench_verdicts != next || bench_last_verdict != AV_VERDICT_ALLOW)
        state.SkipWithError("a packet without its verdict, or another than allow");
    empty_configuration();
}

double measure_b() {
    if (geteuid() != 0)
        return 0;
    lab_enter();
    const live_traffic traffic = {live_frames(plain_trailer()), {}, BARE_PACKETS};
    std::vector<live_figures> runs;
    for (unsigned run = 0; run < BARE_RUNS; ++run)
        runs.push_back(measure_bare_loop(traffic));
    return median_figures(runs).cpu_ns;
}

} // namespace

int main(int argc, char *argv[]) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    for (const packet_case &wanted : DECODE_CASES)
        benchmark::RegisterBenchmark(wanted.name, time_decoding, wanted);
    for (const packet_case &wanted : VERDICT_CASES)
        benchmark::RegisterBenchmark(wanted.name, time_verdict, wanted);
    register_web_cases();
    register_dns_cases();

    const double bare_ns = measure_b();
    lab_pin(lab_choose_cpus().consumer);
    jorn_pkt_processor = jorn_decode_eth_pkt;
    goal_reporter reporter(GOALS, bare_ns);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
