// The DPI engine: nDPI on every IPv4 flow, and its findings in the trailer's DPI fields. What
// clients say first is read here as well, for nDPI doesn't put its pieces together, or not all of
// them.
//
// State per flow is bounded in number and, on the frames' time stamps, in age. nDPI's own share of
// it ends with the inspection; the finding stays for the flow's later frames. So does the host that
// the client showed.
//
// A flow of which nDPI knows no more than that it is TLS, HTTP or QUIC is called after that host,
// once the server has taken the handshake: an address may have many names, and the flow itself says
// which one is meant.
#pragma once

#include "avcore/frames/frame.h"
#include "avcore/hello/handshake.h"
#include "avcore/hello/hello_reader.h"

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

struct ndpi_detection_module_struct;
struct ndpi_flow_struct;

namespace avcore {

// How a pair of nDPI protocols is called towards the daemon.
struct dpi_application {
    uint16_t id = 0;
    const char *name = nullptr;             // null: nDPI's own name of `id`; else bare web traffic
    handshake shows_host = handshake::none; // the host name seen is the server's
};
dpi_application dpi_application_of(uint16_t master, uint16_t application);

// Whether the daemon is told an application, not only that it is web traffic.
bool names_application(const av_pkt_trailer &trailer);

// Whether a verdict can only come from a daemon that doesn't look at the engine's findings: the
// trailer names an application, and nothing that goes before it in the daemon did.
bool ignores_engine(const av_pkt_trailer &trailer, const av_verdict &verdict);

// What the engine may name a flow, as the trailer carries it.
struct known_application {
    uint16_t app_id;
    uint16_t cat_id;
    std::string name;
    std::string category;
};

// What the trailer doesn't say of a flow: the host that its client has shown, and whether that was
// all. The texts are valid until the next packet.
struct shown_host {
    std::string_view host;    // empty: none so far
    std::string_view name;    // the flow's own, whatever this trailer says; empty: nobody took one
    bool just_taken = false;  // by the server, with this packet, which is the first to do so
    bool engine_done = false; // what it says won't change any more
};

class dpi_engine {
public:
    static constexpr size_t MAX_FLOWS = 16'384;
    static constexpr int64_t MAX_IDLE_US = 300'000'000;
    // nDPI wants more of some protocols for as long as they last.
    static constexpr unsigned MAX_TCP_PACKETS = 80;
    static constexpr unsigned MAX_OTHER_PACKETS = 24;

    // Then what it says of a flow so far has to do.
    static constexpr uint64_t ENOUGH_TCP_PACKETS = 30;
    static constexpr uint64_t ENOUGH_OTHER_PACKETS = 12;
    static bool had_enough(uint8_t ip_proto, uint64_t packets);

    explicit dpi_engine(size_t max_flows = MAX_FLOWS); // throws std::runtime_error
    ~dpi_engine();

    // Looks at one packet (what `ipv4_packet` found in the frame) and fills the trailer's DPI
    // fields, bit 2 of filter_type and kernel_domain. A damaged one isn't looked at: it is told
    // what is known of its flow.
    shown_host inspect(const frame_facts &frame, std::span<const uint8_t> packet, int64_t time_us,
                       av_pkt_trailer &trailer);

    // What a flow is called whose client shows this host, where the engine knows it.
    std::optional<known_application> application_for(std::string_view host);
    // Without those of which the daemon makes no name: bare HTTP, TLS and QUIC.
    std::vector<known_application> applications() const;

    size_t flows() const { return flows_.size(); }

private:
    struct module_closer {
        void operator()(ndpi_detection_module_struct *module) const;
    };
    struct flow_closer {
        void operator()(ndpi_flow_struct *flow) const;
    };
    struct finding {
        uint32_t status = AV_DPI_MORE_PACKETS;
        uint16_t app_id = 0;
        uint16_t cat_id = 0;
        std::string name;
        bool bare = false; // web traffic of which nothing else is known
        std::string host;
        handshake shown_in = handshake::none;
        std::string taken_name; // of the host that the server took

        std::string_view own_name() const { return bare ? taken_name : std::string_view(); }
    };
    enum class hello_state : uint8_t { unseen, gathering, over };
    struct stream_start {
        endpoint client;
        uint32_t sequence = 0;
    };
    struct flow_state {
        flow_id id;
        std::unique_ptr<ndpi_flow_struct, flow_closer> flow; // null: the inspection has ended
        unsigned packets = 0;
        int64_t last_us = 0;
        finding found;
        std::optional<endpoint> shown_to; // a host, and it hasn't taken the handshake yet
        hello_state hello = hello_state::unseen;
        std::optional<stream_start> stream; // of TCP, since its client is known
    };

    flow_state &state_of(const flow_id &id, int64_t time_us);
    bool take_finding(flow_state &state, uint16_t master, uint16_t app);
    void identify(finding &found, const dpi_application &application);
    uint16_t application_of_host(std::string_view host); // by nDPI's own table of them
    uint16_t category_of(uint16_t app) const;
    known_application known_as(uint16_t app) const;
    static bool awaits_hello(const flow_state &state);
    static bool just_taken(flow_state &state, const frame_facts &frame,
                           std::span<const uint8_t> packet);
    void look(flow_state &state, const frame_facts &frame, std::span<const uint8_t> packet,
              int64_t time_us);
    void feed(flow_state &state, std::span<const uint8_t> packet, int64_t time_us);
    void look_for_hello(flow_state &state, const frame_facts &frame,
                        std::span<const uint8_t> packet, int64_t time_us);
    hello_reader::sight look_at_segment(flow_state &state, const frame_facts &frame,
                                        std::span<const uint8_t> packet, int64_t time_us);
    void take_hello(flow_state &state, const hello_reader::sight &seen, const endpoint &server);
    static void write(const finding &found, bool by_own_name, av_pkt_trailer &trailer);

    size_t max_flows_;
    std::unique_ptr<ndpi_detection_module_struct, module_closer> module_;
    hello_reader hellos_;
    std::list<flow_state> flows_; // the one seen last at the front
    std::map<flow_id, std::list<flow_state>::iterator> index_;
};

} // namespace avcore
