// What the access point's kernel module makes of a frame that passes: it counts it in its flow, has
// the DPI engine look at it, notes what it says about names, and appends the trailer. An IPv6
// packet is shown as one of IPv4 whose addresses stand in for the real ones.
#pragma once

#include "avcore/engine/dpi.h"
#include "avcore/feed/feeder.h"
#include "avcore/flows/client_table.h"
#include "avcore/flows/flow_table.h"
#include "avcore/flows/resolvers.h"
#include "avcore/frames/captured_frame.h"
#include "avcore/names/client_names.h"
#include "avcore/names/dns_names.h"
#include "avcore/names/stand_ins.h"
#include "avcore/settings/client_rules.h"
#include "avcore/settings/config.h"

#include <compare>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace avcore {

struct frame_counts {
    uint64_t reserved = 0; // not carried: an address could be taken for one of another family
    uint64_t unwalked = 0; // IPv6 packets with more or longer extension headers than are walked
    uint64_t answers_refused = 0; // of DNS
};

class frame_builder {
public:
    // `settings` outlives the builder. `captured_on` is the interface of a live capture, else
    // empty. Throws std::runtime_error.
    frame_builder(const config &settings, const std::string &captured_on);

    struct built_frame {
        fed_frame frame;
        name_lesson lesson;
        flow_table::sighting flow;
    };
    // None: it can't be carried, and was counted.
    std::optional<built_frame> build(const captured_frame &captured);

    flow_table &flows() { return flows_; }
    int64_t time_us() const { return time_us_; } // of the last frame's capture
    const stand_in_table &stand_ins() const { return stand_ins_; }
    // Of DHCP.
    const client_name_table &client_names() const { return client_names_; }
    frame_counts counts() const;
    // What the last frame gives to say; else empty.
    std::string take_remark() { return resolvers_.take_remark(); }
    bool has_engine() const { return dpi_ != nullptr; }
    dpi_engine *engine() { return dpi_.get(); }       // null: switched off
    const dns_names &names() const { return names_; } // as of the last frame

private:
    std::optional<frame_facts> show(std::span<const uint8_t> captured, std::vector<uint8_t> &bytes);
    dns_answer read_names(const frame_facts &frame, std::span<const uint8_t> packet,
                          const captured_frame &captured);
    void read_client_name(const frame_facts &frame, std::span<const uint8_t> packet);
    bool has_known_side(const frame_facts &frame) const;
    void inspect(const frame_facts &frame, std::span<const uint8_t> packet, int64_t time_us,
                 flow_row &row, av_pkt_trailer &trailer, bool &engine_done);
    void name_by_earlier_flow(const flow_row &row, int64_t time_us, av_pkt_trailer &trailer) const;

    // Who has shown a host to whom. A MAC address may be a router's, that of many.
    struct acquaintance {
        mac_address mac;
        ip_address client;
        ip_address server;

        auto operator<=>(const acquaintance &) const = default;
    };
    static constexpr table_bounds SHOWN_HOSTS = {16'384, 1'024, 300'000'000};

    static acquaintance sides_of(const flow_row &row);

    client_rules rules_;
    resolver_watch resolvers_;
    stand_in_table stand_ins_;
    frame_counts counts_;
    flow_table flows_;
    client_table<acquaintance, std::string> shown_{SHOWN_HOSTS}; // and a server took it
    client_name_table client_names_;
    dns_names names_; // as of the last frame, like the rows; the daemon isn't there yet
    int64_t time_us_ = 0;
    std::unique_ptr<dpi_engine> dpi_; // null: switched off
};

} // namespace avcore
