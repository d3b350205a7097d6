// The packet path allocates nothing. Every call of the allocator is counted, by standing in for
// malloc and its kin, on which operator new is built.
#include "packet/capture.h"
#include "packet/decode/decode.h"
#include "packet/process.h"
#include "support/frames.h"
#include "support/fresh_state.h"
#include "webfilter/web_tables.h"

#include <gtest/gtest.h>

namespace {

size_t allocator_calls;

} // namespace

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *old, size_t size);

void *malloc(size_t size) {
    ++allocator_calls;
    return __libc_malloc(size);
}
void *calloc(size_t count, size_t size) {
    ++allocator_calls;
    return __libc_calloc(count, size);
}
void *realloc(void *old, size_t size) {
    ++allocator_calls;
    return __libc_realloc(old, size);
}
}

namespace {

TEST(Allocations, NoneInTenThousandPackets) {
    fresh_state();
    platform.is_thorough = false;
    jorn_pkt_processor = jorn_decode_eth_pkt;
    capture_context capture_ctx = {};
    jorn_settings.tm_engine_enabled = 1;
    const web_policy_wire policy = {};
    __web_find_intf_and_build_utp_for_pcy(&policy);
    const web_intf_wire binding = {1, "wlan0", {}, 0, WEB_INTF_ADD, "", {}};
    jorn_process_web_intf_config(&binding);
    av_pkt_trailer web = {};
    web.filter_type = AV_FILTER_URL;
    strcpy(web.src_if_name, "wlan0");
    strcpy(web.kernel_domain, "www.example");
    const octets frames[] = {
        with_trailer(ethernet(0x0800, ipv4(6, tcp(40000, 443)))),
        with_trailer(ethernet(0x0800, ipv4(6, tcp(80, 1, "HTTP/1.1 302\r\nLocation: x\r\n")))),
        with_trailer(vlan(0x0800, ipv4(17, udp(1024, 53)))),
        with_trailer(pppoe(0x0021, ipv4(1, icmp_echo()))),
        with_trailer(ethernet(0x0806, arp())),
        with_trailer(ethernet(0x0800, ipv4(6, tcp(40000, 443))), web),
    };

    allocator_calls = 0;
    ::operator delete(::operator new(1)); // the counter counts
    ASSERT_EQ(allocator_calls, 1u);
    for (int i = 0; i < 10'000; ++i) {
        const octets &frame = frames[static_cast<size_t>(i) % std::size(frames)];
        const pcap_pkthdr header = capture_header(frame);
        jorn_pkt_callback(reinterpret_cast<uint8_t *>(&capture_ctx), &header, frame.data());
    }
    const size_t calls = allocator_calls;
    EXPECT_EQ(calls, 1u);
    EXPECT_EQ(platform.verdicts, 10'000u);
    jorn_process_web_policy_flush();
    jorn_state.web_intf_list.release_all();
}

} // namespace
