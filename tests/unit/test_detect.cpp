#include "classify/detect.h"
#include "control/files/dpi_engine.h"
#include "dns_cache_fixture.h"
#include "support/policies.h"
#include "userapps/settle.h"

namespace {

av_pkt_trailer dpi_trailer(const std::string &name) {
    av_pkt_trailer trailer = {};
    trailer.filter_type = AV_FILTER_DPI;
    trailer.dpi_status = AV_DPI_IDENTIFIED;
    trailer.dpi_app_id = 124;
    trailer.dpi_cat_id = 9;
    memcpy(trailer.dpi_app_name, name.data(), name.size());
    return trailer;
}

pkt_ctx client_flow() {
    pkt_ctx ctx = {};
    ctx.src_ip = ip("10.0.0.2");
    ctx.dst_ip = ip("192.0.2.7");
    ctx.dst_port = 8080;
    return ctx;
}

class Detect : public DnsCacheFixture {
protected:
    void SetUp() override {
        DnsCacheFixture::SetUp();
        platform.results["psm_mem_support_tm"] = 1;
        enable_dpi_engine();
        platform.calls.clear();
    }
    // A frame of `frame_size` bytes with the trailer behind it.
    static int detect(pkt_ctx &ctx, const av_pkt_trailer &trailer, size_t frame_size = 60) {
        std::vector<uint8_t> bytes(frame_size);
        const auto *from = reinterpret_cast<const uint8_t *>(&trailer);
        bytes.insert(bytes.end(), from, from + sizeof trailer);
        pcap_pkthdr header = {};
        header.caplen = static_cast<uint32_t>(bytes.size());
        return jorn_detect_pkt(&ctx, &header, bytes.data());
    }
};

constexpr char ADDRESSES[] = "10.0.0.2 192.0.2.7:8080";

// Everything that can name a flow at once, taken away from the front.
TEST_F(Detect, TheStepsInTheirOrder) {
    add_policy(1);
    userdef_app definition = {}; // fits every packet
    strcpy(definition.app_name, "Till");
    port_app service = {};
    service.begin_port = service.end_port = 514;
    service.tcp_flag = 1;
    strcpy(service.app_name, "Portal");

    enum from : unsigned { DEFINITION = 1, SERVICE = 2, ENGINE = 4, DNS = 8, TRAILER = 16 };
    const struct {
        const char *what;
        unsigned sources;
        uint16_t dst_port;
        uint32_t utp_id;
        const char *name, *second_name;
        uint8_t source;
    } rows[] = {
        {"all of them", 31, 514, 0, "Till", "YouTube", APP_SOURCE_USERDEF},
        {"engine absent", 31 & ~ENGINE, 514, 0, "Till", "d.example", APP_SOURCE_USERDEF},
        {"no definition", SERVICE | ENGINE | DNS | TRAILER, 514, 0, "Portal", "YouTube",
         APP_SOURCE_USER_PORT},
        {"nor a service", ENGINE | DNS | TRAILER, 514, 0, "YouTube", "", APP_SOURCE_DPI},
        {"nor an engine", DNS | TRAILER, 514, 0, "d.example", "", APP_SOURCE_DNS},
        {"nor a name", TRAILER, 514, 0, "apple-shell", "", APP_SOURCE_BUILTIN_PORT},
        {"nor a known port", TRAILER, 8080, 0, ADDRESSES, "", APP_SOURCE_NONE},
        {"the trailer's UTP allows neither", DEFINITION | SERVICE | TRAILER, 514, 1, "apple-shell",
         "", APP_SOURCE_BUILTIN_PORT},
        {"a capture of a trailer's size holds none", 15, 514, 0, "d.example", "", APP_SOURCE_DNS},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        jorn_state.userdef_apps = {};
        if ((row.sources & DEFINITION) != 0)
            jorn_state.userdef_apps = {1, {definition}};
        port_app *listed = (row.sources & SERVICE) != 0 ? &service : nullptr;
        jorn_state.port_apps = {{listed, listed, 1}};
        settle_userapps();
        jorn_settings.tm_engine_enabled = (row.sources & ENGINE) != 0 ? 1 : 0;
        hash_table_clear(jorn_state.dns_cache);
        if ((row.sources & DNS) != 0)
            learn_dns_name(ip("192.0.2.7"), "d.example");
        av_pkt_trailer trailer = dpi_trailer("YouTube");
        trailer.src_utp_id = trailer.dst_utp_id = row.utp_id;
        pkt_ctx ctx = client_flow();
        ctx.ip_proto = 6;
        ctx.dst_port = row.dst_port;
        EXPECT_EQ(detect(ctx, trailer, (row.sources & TRAILER) != 0 ? 60 : 0), 1);
        EXPECT_STREQ(ctx.app_name, row.name);
        EXPECT_STREQ(ctx.orig_app, row.second_name);
        EXPECT_EQ(ctx.app_source, row.source);
    }
    jorn_process_arc_policy_flush();
}

} // namespace
