#include "classify/dns_app.h"
#include "dns_cache_fixture.h"

namespace {

pkt_ctx flow(const char *src, uint16_t src_port, const char *dst, uint16_t dst_port) {
    pkt_ctx ctx = {};
    ctx.src_ip = ip(src);
    ctx.dst_ip = ip(dst);
    ctx.src_port = src_port;
    ctx.dst_port = dst_port;
    return ctx;
}

class DnsApp : public DnsCacheFixture {};

const fake_dns_answer ERROR = {"never", -1, {1, 1, 1}};
const fake_dns_answer WORD2_0 = {"never", 0, {1, 0, 1}};
const fake_dns_answer WORD3_0 = {"never", 0, {1, 1, 0}};
const fake_dns_answer NAME = {"server.example", 0, {0, 1, 1}};
const fake_dns_answer EMPTY = {"", 0, {1, 1, 1}};

TEST_F(DnsApp, WhichSideNamesTheFlow) {
    const struct {
        const char *what;
        int web_mode;
        const char *src;
        uint16_t src_port;
        const char *dst;
        uint16_t dst_port;
        fake_dns_answer src_answer, dst_answer;
        std::vector<std::string> asked;
        bool named;
    } rows[] = {
        {"word 1 doesn't count", 0, "10.0.0.2", 1, "10.0.0.7", 2, NAME, WORD3_0, {"7", "2"}, true},
        {"neither known", 0, "10.0.0.2", 1, "10.0.0.7", 2, WORD3_0, WORD2_0, {"7", "2"}, false},
        {"an error ends it", 0, "10.0.0.2", 1, "10.0.0.7", 2, NAME, ERROR, {"7"}, false},
        {"an empty name counts", 0, "10.0.0.2", 1, "10.0.0.7", 2, NAME, EMPTY, {"7"}, false},
        {"source alone", 0, "10.0.0.2", 1, "", 2, NAME, ERROR, {"2"}, true},
        {"no address", 0, "", 1, "", 2, ERROR, ERROR, {}, false},
        {"from a web server", 1, "10.0.0.2", 443, "10.0.0.7", 51000, NAME, ERROR, {"2"}, true},
        {"unknown web server", 1, "10.0.0.2", 51000, "10.0.0.7", 80, NAME, WORD3_0, {"7"}, false},
        {"not web", 1, "10.0.0.2", 8080, "10.0.0.7", 22, NAME, NAME, {}, false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        TearDown();
        SetUp();
        platform.dns = {{ip("10.0.0.7"), row.dst_answer}, {ip("10.0.0.2"), row.src_answer}};
        pkt_ctx ctx = flow(row.src, row.src_port, row.dst, row.dst_port);
        EXPECT_EQ(jorn_detect_pkt_dns_app(&ctx, row.web_mode), row.named ? 1 : 0);
        EXPECT_STREQ(ctx.app_name, row.named ? "server.example" : "");
        EXPECT_EQ(ctx.app_source, row.named && row.web_mode == 0 ? APP_SOURCE_DNS : 0);
        EXPECT_EQ(ctx.detect_flags,
                  row.named || row.dst_answer.name.empty() ? DETECT_CLASSIFIED : 0);
        std::vector<std::string> asked;
        for (const std::string &digit : row.asked)
            asked.push_back("psms_dnscache_get_dn_by_ip(10.0.0." + digit + ", 65)");
        EXPECT_EQ(platform.calls, asked);
    }
}

TEST_F(DnsApp, ANameThatIsThereStaysAndTheNewOneGoesBeside) {
    learn_dns_name(ip("192.0.2.7"), "dns.example");
    pkt_ctx ctx = flow("10.0.0.2", 1, "192.0.2.7", 2);
    ctx.app_source = APP_SOURCE_USERDEF;
    strcpy(ctx.app_name, "Till");
    EXPECT_EQ(jorn_detect_pkt_dns_app(&ctx, 0), 1);
    EXPECT_STREQ(ctx.app_name, "Till");
    EXPECT_STREQ(ctx.orig_app, "dns.example");
    EXPECT_EQ(ctx.app_source, APP_SOURCE_USERDEF);

    // A decoder's name counts as a match, whatever the look-up brought.
    pkt_ctx icmp = flow("10.0.0.2", 0, "192.0.2.9", 0);
    strcpy(icmp.app_name, "ICMP");
    platform.dns[ip("192.0.2.9")].result = -1;
    EXPECT_EQ(jorn_detect_pkt_dns_app(&icmp, 0), 1);
    EXPECT_EQ(icmp.app_source, APP_SOURCE_DNS);
}

TEST(Ipv4String, Rows) {
    // What follows an empty number isn't read.
    for (const char *text : {"1.2.3.4", "255.255.255.255", "01.2.3.4", "1..22.999"})
        EXPECT_EQ(jorn_is_valid_ipv4_string(text), 1) << text;
    for (const char *text : {"", "1.2.3", "01.2.3.256", ".1.2.3", "1.2.3.4.", "1.2.3.4.5",
                             "1.2.3.4\r", "-1.2.3.4", "1.1.1.999999999", "9999999999..1.1"})
        EXPECT_EQ(jorn_is_valid_ipv4_string(text), 0) << text;
    EXPECT_EQ(jorn_is_valid_ipv4_string(nullptr), 0);
}

TEST(RedirectIp, Rows) {
    const struct {
        const char *location;
        const char *found; // none = -1
    } rows[] = {
        {"http://192.0.2.1/path", "192.0.2.1"},
        {"http://host.example/192.0.2.1/x", "192.0.2.1"},
        {"//a//b//c//d//192.0.2.1", "192.0.2.1"},
        {"a/b/c/d/e/192.0.2.1", nullptr},
        {"http://192.0.2.1\r\nServer: x/", nullptr},
        {"1..22.33/192.0.2.1", "192.0.2.1"},
        {"///", nullptr},
        {"", nullptr},
    };
    for (const auto &row : rows) {
        uint32_t address_be = 0;
        EXPECT_EQ(jorn_parse_redirect_ip(row.location, &address_be), row.found != nullptr ? 0 : -1)
            << row.location;
        EXPECT_EQ(address_be, row.found != nullptr ? ip(row.found) : 0) << row.location;
    }
}

} // namespace
