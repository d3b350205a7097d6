#include "web_cases.h"

#include "core/base/settings.h"
#include "core/state/state.h"
#include "core/text/text.h"
#include "dns_cases.h"
#include "flows.h"
#include "support/fake_platform.h"
#include "webfilter/web_tables.h"

#include <benchmark/benchmark.h>
#include <cstring>
#include <memory>
#include <string>
#include <syslog.h>

namespace {

constexpr unsigned FLOWS = 64;
constexpr urlf_answer FIVE_CATEGORIES = {0, 80, {5, 17, 29, 40, 61}, 4};

int five_categories(const urlf_request *, urlf_reply *reply) {
    reply->answer = FIVE_CATEGORIES;
    return 0;
}

struct web_case {
    const char *name;
    void (*set_up)();
};

void bind_interface(const char *uuid) {
    web_intf_wire binding = {};
    binding.enable = 1;
    binding.op = WEB_INTF_ADD;
    copy_text(binding.ifname, "wlan0");
    copy_text(binding.policy_uuid, uuid);
    jorn_process_web_intf_config(&binding);
}

void bind_empty_policy() {
    web_policy_wire policy = {};
    copy_text(policy.uuid, "empty");
    __web_find_intf_and_build_utp_for_pcy(&policy);
    bind_interface("empty");
}

// Both lists and all categories, none of which is the packets'.
void bind_full_policy() {
    const auto policy = std::make_unique<web_policy_wire>();
    copy_text(policy->uuid, "full");
    policy->num_categories = WEB_CATEGORIES_MAX;
    for (size_t i = 0; i < WEB_CATEGORIES_MAX; ++i)
        policy->categories[i] = static_cast<int32_t>(i + 1);
    for (const int32_t category : FIVE_CATEGORIES.categories)
        policy->categories[category - 1] = 200 + category;
    policy->num_whitelist = policy->num_blacklist = WEB_PATTERNS_MAX;
    for (size_t i = 0; i < WEB_PATTERNS_MAX; ++i) {
        const std::string number = std::to_string(i);
        copy_text(policy->whitelist[i], "*.Shop" + number + ".Market-Place" + number + ".com");
        copy_text(policy->blacklist[i], "*.casino-" + number + ".*");
    }
    __web_find_intf_and_build_utp_for_pcy(policy.get());
    bind_interface("full");
}

void no_binding() {}

// The line in the log is made and thrown away.
void no_binding_and_no_log() {
    setlogmask(LOG_MASK(LOG_EMERG));
}

constexpr web_case CASES[] = {
    {"url/empty", bind_empty_policy},
    {"url/full", bind_full_policy},
    {"url/unbound", no_binding},
    {"url/unbound_log_masked", no_binding_and_no_log},
};

std::vector<octets> url_frames() {
    av_pkt_trailer trailer = plain_trailer();
    trailer.filter_type = AV_FILTER_URL;
    std::vector<octets> frames;
    for (unsigned flow = 0; flow < FLOWS; ++flow) {
        copy_text(trailer.kernel_domain, "www.host" + std::to_string(flow) + ".market.example.com");
        frames.push_back(with_trailer(flow_frame(flow), trailer));
    }
    return frames;
}

void time_verdict(benchmark::State &state, const web_case &wanted) {
    platform.category_answer = five_categories;
    jorn_settings.tm_engine_enabled = 1;
    copy_text(jorn_settings.video_stream_domain, "video-cdn.example");
    empty_dns_cache();
    wanted.set_up();
    const std::vector<octets> frames = url_frames();
    platform.verdicts = 0;
    size_t next = 0;
    for ([[maybe_unused]] auto _ : state)
        judge(frames[next++ % FLOWS]);
    if (platform.verdicts != next || platform.last_verdict != AV_VERDICT_ALLOW)
        state.SkipWithError("a packet without its verdict, or another than allow");
    jorn_process_web_policy_flush();
    jorn_state.web_intf_list.release_all();
    platform.category_answer = nullptr;
    jorn_settings.tm_engine_enabled = 0;
    setlogmask(LOG_UPTO(LOG_DEBUG));
}

} // namespace

void register_web_cases() {
    for (const web_case &wanted : CASES)
        benchmark::RegisterBenchmark(wanted.name, time_verdict, wanted);
}
