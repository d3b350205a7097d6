#include "roaming/roam.h"

#include "core/base/log.h"
#include "core/base/settings.h"
#include "core/dns/dns_cache.h"
#include "core/text/text.h"
#include "platform/psms.h"
#include "platform/records.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <span>

namespace {

constexpr size_t PEER_NAME_SIZE = 32;

constexpr size_t message_length(uint32_t count) {
    return offsetof(roam_message, flows) + size_t{count} * sizeof(roam_flow);
}

roam_notify notify_of(const void *payload) {
    roam_notify notify;
    memcpy(&notify, payload, sizeof notify);
    return notify;
}

// One of a notify's two access points.
struct access_point {
    const uint8_t (&mac)[6];
    uint16_t family;
    const void *address; // of that family

    // As text; empty for an unknown family.
    struct address_text {
        char text[INET6_ADDRSTRLEN];
    };
    address_text as_text() const {
        address_text to = {};
        inet_ntop(family, address, to.text, sizeof to.text);
        return to;
    }
    bool has_address() const { return family == ROAM_FAMILY_IPV4 || family == ROAM_FAMILY_IPV6; }
};

const void *address_of(uint16_t family, const uint32_t &ipv4, const uint8_t (&ipv6)[16]) {
    return family == ROAM_FAMILY_IPV4 ? static_cast<const void *>(&ipv4) : ipv6;
}

access_point left_by(const roam_notify &notify) {
    return {notify.from_ap_mac, notify.from_ap_family,
            address_of(notify.from_ap_family, notify.from_ap_ipv4, notify.from_ap_ipv6)};
}

access_point reached_by(const roam_notify &notify) {
    return {notify.to_ap_mac, notify.to_ap_family,
            address_of(notify.to_ap_family, notify.to_ap_ipv4, notify.to_ap_ipv6)};
}

void log_mac(const char *format_name, const uint8_t (&mac)[6]) {
    JORN_DEBUG_AS("jorn_process_roam_from", "%s:%X:%X:%X:%X:%X:%X \n", format_name, mac[0], mac[1],
                  mac[2], mac[3], mac[4], mac[5]);
}

void log_access_point(const char *role, const access_point &ap) {
    char name[32];
    snprintf(name, sizeof name, "AP mac (%s)", role);
    log_mac(name, ap.mac);
    const char *family = ap.family == ROAM_FAMILY_IPV4   ? "IPv4"
                         : ap.family == ROAM_FAMILY_IPV6 ? "IPv6"
                                                         : "Unknown";
    JORN_DEBUG_AS("jorn_process_roam_from", "AP IP family (%s): %s\n", role, family);
    if (ap.has_address())
        JORN_DEBUG_AS("jorn_process_roam_from", "AP %s (%s): %s\n", family, role,
                      ap.as_text().text);
}

// On the way out and on the way in, in the name of either function.
void log_flows(std::span<const roam_flow> flows, log_origin from) {
    int number = 0;
    for (const roam_flow &flow : flows) {
        uint8_t ip[8];
        memcpy(ip, flow.ipv4, sizeof ip);
        JORN_SAY(JORN_LOG_DEBUG, from,
                 "%d: %02X%02X %02X%02X       %u.%u.%u.%u %u.%u.%u.%u   %5u %5u     %4X     %31s\n",
                 ++number, flow.word_a[0], flow.word_a[1], flow.word_b[0], flow.word_b[1], ip[0],
                 ip[1], ip[2], ip[3], ip[4], ip[5], ip[6], ip[7], ntohs(flow.port_a),
                 ntohs(flow.port_b), flow.flow_tag,
                 printable_text(field_text(flow.server_name)).c_str());
    }
}

// What is subscribed to, as long as the bus is open.
wdlm_label *subscription;

int fail_set_up() {
    close_roaming_bus();
    return ROAM_ERR;
}

int publish(const char *peer, const void *message, size_t length) {
    constexpr char FUNCTION[] = "jorn_roam_sync_req";
    wdlm_label *label = wdlm_create_plabel(0, peer, ROAM_TOPIC, 0);
    if (label == nullptr) {
        JORN_ERROR_AS(FUNCTION, "wdlm_create_plabel failed");
        return ROAM_ERR_PUBLISH;
    }
    const int result = wdlm_pub(jorn_settings.bus, label, message, length);
    if (result != 0)
        JORN_ERROR_AS(FUNCTION, "wdlm_pub failed");
    wdlm_destroy_plabel(label);
    return result == 0 ? 0 : ROAM_ERR_PUBLISH;
}

// Adds a flow's name to the cache, unless its server has one; asking restarts that one's age.
// Returns false when the cache takes no more.
bool import_flow(const roam_flow &flow) {
    if (flow.server_index >= std::size(flow.ipv4))
        return true;
    const uint32_t server = flow.ipv4[flow.server_index];
    char known[sizeof dns_cache_entry::name];
    if (jorn_dnscache_find(server, known, sizeof known) != nullptr)
        return true;
    return learn_dns_name(server, field_text(flow.server_name)) == 0;
}

} // namespace

int jorn_init_roam_cfg(int arg) {
    if (wdlm_init(arg) != 0) {
        JORN_ERROR("wdlm_init failed");
        return ROAM_ERR;
    }
    jorn_settings.bus = wdlm_open(0, "jorn");
    if (jorn_settings.bus == nullptr) {
        JORN_ERROR("wdlm_open failed");
        wdlm_cleanup();
        return ROAM_ERR;
    }
    subscription = wdlm_create_slabel(0, "*", ROAM_TOPIC, 0);
    if (subscription == nullptr) {
        JORN_ERROR("wdlm_create_slabel failed");
        return fail_set_up();
    }
    if (wdlm_sub(jorn_settings.bus, subscription, jorn_prcs_RflowRoamInfo, nullptr, 0) != 0) {
        JORN_ERROR("wdlm_sub %s failed", ROAM_TOPIC);
        return fail_set_up();
    }
    return 0;
}

void close_roaming_bus() {
    if (jorn_settings.bus == nullptr)
        return;
    if (subscription != nullptr)
        wdlm_destroy_slabel(subscription);
    subscription = nullptr;
    wdlm_close(jorn_settings.bus);
    jorn_settings.bus = nullptr;
    wdlm_cleanup();
}

void jorn_process_cmd_roam_notify(const void *payload) {
    JORN_DEBUG("process the CMD_ROAM_NOTIFY_REQ \n");
    jorn_process_roam_from(payload);
}

int jorn_process_roam_from(const void *notify_payload) {
    const roam_notify notify = notify_of(notify_payload);
    if (jorn_log_enabled(JORN_LOG_DEBUG)) {
        JORN_DEBUG("\n==============begin to process roaming from================\n");
        log_mac("station mac", notify.sta_mac);
        log_access_point("roam from", left_by(notify));
        log_access_point("roam to", reached_by(notify));
    }

    roam_message message = {};
    int count = 0;
    if (const int rc = psms_rflow_get_roam(&notify, message.flows, &count); rc != 0) {
        JORN_ERROR("psms_rflow_get_roam error rc =%d\n", rc);
        return ROAM_ERR;
    }
    if (count <= 0) {
        JORN_DEBUG("the rflow count need to be synchronized is %d\n", count);
        return 0;
    }
    message.count = std::min<uint32_t>(static_cast<uint32_t>(count), ROAM_FLOWS_MAX);
    JORN_DEBUG("\nroaming info:\n");
    log_flows(std::span(message.flows, message.count), JORN_HERE);
    JORN_DEBUG("\n\n");

    const int result = jorn_roam_sync_req(&notify, &message, message_length(message.count));
    if (result != 0)
        JORN_ERROR("sync to peer AP failed, ret is %d\n", result);
    return result;
}

int jorn_roam_sync_req(const void *notify_payload, const void *message, size_t length) {
    if (notify_payload == nullptr || message == nullptr || length < 1)
        return ROAM_ERR_PUBLISH;
    const roam_notify notify = notify_of(notify_payload);
    const access_point peer = reached_by(notify);
    char name[PEER_NAME_SIZE];
    snprintf(name, sizeof name, "%s.%02X:%02X:%02X:%02X:%02X:%02X", "AP", peer.mac[0], peer.mac[1],
             peer.mac[2], peer.mac[3], peer.mac[4], peer.mac[5]);
    if (!peer.has_address())
        return ROAM_ERR_PUBLISH;
    if (__wdlm_add_peer(__func__, __LINE__, name, peer.as_text().text) < 0) {
        JORN_ERROR("wdlm_add_peer failed");
        return ROAM_ERR_PUBLISH;
    }
    return publish(name, message, length);
}

void jorn_prcs_RflowRoamInfo(void *, const wdlm_message *message) {
    JORN_DEBUG("receive %s from %s, let's process\n", ROAM_TOPIC,
               printable_text(message->sender).c_str());
    const auto *bytes = static_cast<const uint8_t *>(message->payload);
    uint32_t count = 0;
    if (message->length != 0)
        memcpy(&count, bytes, std::min(message->length, sizeof count));
    if (count == 0 || count > ROAM_FLOWS_MAX) {
        JORN_DEBUG("sync rflow count (%d) error! \n", static_cast<int>(count));
        return;
    }
    if (message->length < message_length(count)) {
        JORN_ERROR("%u flows don't fit into the %zu bytes that came from %s\n", count,
                   message->length, printable_text(message->sender).c_str());
        return;
    }
    roam_flow flows[ROAM_FLOWS_MAX];
    memcpy(flows, bytes + sizeof count, count * sizeof(roam_flow));
    log_flows(std::span(flows, count), JORN_HERE);
    for (uint32_t i = 0; i < count && import_flow(flows[i]); ++i) {
    }
}
