// avcore's TOML file, as somebody may have left it: it is refused with lines that name it and can
// be printed, or each value is within its bounds and the rest of avcore can go by it.
#include "avcore/bus/address.h"
#include "avcore/settings/client_rules.h"
#include "avcore/settings/config.h"
#include "demand.h"
#include "settings_lines.h"

#include <net/if.h>
#include <utility>

namespace {

using namespace avcore;

void check_side(const side_profile &side) {
    demand(!side.if_name.empty() && side.if_name.size() < IFNAMSIZ);
    demand(side.utp_id <= AV_UTP_ID_MAX);
}

void check_trailers(const config &settings) {
    const client_rules rules(settings, "wlan0");
    const endpoint client = {{2, 0, 0, 0, 0, 1}, 0x0200010A, 1000};
    const endpoint server = {{2, 0, 0, 0, 0, 9}, 0x070200C0, 443};
    frame_facts frame;
    frame.sender = client;
    frame.receiver = server;
    const bool is_sent = rules.sender_is_client(frame);
    std::swap(frame.sender, frame.receiver);
    demand(is_sent || rules.sender_is_client(frame));
    const auto [profile, number] = rules.fitting_of(client);
    demand(number <= settings.rules.size());
    const av_pkt_trailer sent = trailer_between(profile, rules.server(server), true);
    const av_pkt_trailer received = trailer_between(profile, rules.server(server), false);
    demand(sent.src_utp_id == received.dst_utp_id && sent.dst_if_index == received.src_if_index);
}

void check(const config &settings) {
    const client_rules rules(settings, "wlan0");
    check_side(rules.complete(settings.client).side);
    check_side(settings.uplink);
    for (const client_rule &rule : settings.rules) {
        check_side(rules.complete(rule.profile).side);
        demand(rule.mac || rule.network || !rule.captured_on.empty());
    }
    for (const auto &[key, value] : settings.platform_values)
        demand(key.size() < sizeof(av_value_question::key) &&
               value.size() < sizeof(av_value_answer::value));
    if (settings.bus) {
        const auto address = bus_address::of_listener(settings.bus->listen);
        demand(address && (address->is_loopback() || !settings.bus->loopback_only()));
    }
    for (const std::string &name : settings.inline_interfaces)
        demand(!name.empty() && name.size() < IFNAMSIZ);
    demand(settings.enforce.rules.copies_per_second != 0 && settings.capture.speed != 0);
    for (const std::string &line : settings.warnings)
        check_lines(line, "f");
    check_trailers(settings);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    try {
        check(parse_config({reinterpret_cast<const char *>(data), size}, "f"));
    } catch (const config_error &error) {
        check_lines(error.what(), "f");
    }
    return 0;
}
