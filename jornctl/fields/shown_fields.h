// The fields of payloads that no document holds: what the controller and the URL-filtering agent
// send. They are shown and never read, so their rows have words alone.
#pragma once

#include "jornctl/fields/fields.h"
#include "jornctl/fields/web_fields.h"
#include "platform/records.h"

#include <arpa/inet.h>

namespace jornctl {

template <auto Member, typename Kind>
inline constexpr binding<typename member_traits<decltype(Member)>::record> shown = {
    nullptr,
    [](const auto &from) -> ordered_json { return Kind::words(from.*Member); },
    nullptr,
};

struct mac_address {
    static ordered_json words(const uint8_t (&from)[6]);
};

struct ipv6_address {
    static ordered_json words(const uint8_t (&from)[16]);
};

struct port {
    static ordered_json words(uint16_t port_be) { return ntohs(port_be); }
};

// A text that may fill its field to the last byte.
struct full_text {
    template <size_t N>
    static ordered_json words(const char (&from)[N]) {
        return std::string(from, strnlen(from, N));
    }
};

inline constexpr named_number ROAM_FAMILIES[] = {
    {"IPv4", ROAM_FAMILY_IPV4},
    {"IPv6", ROAM_FAMILY_IPV6},
};

inline constexpr field<roam_notify> ROAM_FIELDS[] = {
    {"sta_mac", shown<&roam_notify::sta_mac, mac_address>},
    {"from_ap_mac", shown<&roam_notify::from_ap_mac, mac_address>},
    {"from_ap_family", shown<&roam_notify::from_ap_family, word<ROAM_FAMILIES>>},
    {"from_ap_ipv4", shown<&roam_notify::from_ap_ipv4, address>},
    {"from_ap_ipv6", shown<&roam_notify::from_ap_ipv6, ipv6_address>},
    {"to_ap_mac", shown<&roam_notify::to_ap_mac, mac_address>},
    {"to_ap_family", shown<&roam_notify::to_ap_family, word<ROAM_FAMILIES>>},
    {"to_ap_ipv4", shown<&roam_notify::to_ap_ipv4, address>},
    {"to_ap_ipv6", shown<&roam_notify::to_ap_ipv6, ipv6_address>},
};

inline constexpr field<flow_key> FLOW_KEY_FIELDS[] = {
    {"non_ip", shown<&flow_key::non_ip, flag>},
    {"dst_mac", shown<&flow_key::dst_mac, mac_address>},
    {"src_mac", shown<&flow_key::src_mac, mac_address>},
    {"dst_port", shown<&flow_key::dst_port_be, port>},
    {"src_port", shown<&flow_key::src_port_be, port>},
    {"ip_proto", shown<&flow_key::ip_proto, number<>>},
    {"dst_ip", shown<&flow_key::dst_ip_be, address>},
    {"src_ip", shown<&flow_key::src_ip_be, address>},
};

inline constexpr field<urlf_request> CATEGORY_REQUEST_FIELDS[] = {
    {"request_type", shown<&urlf_request::request_type, number<>>},
    {"flow_key", shown<&urlf_request::flow_key, record<FLOW_KEY_FIELDS>>},
    {"dst_if_index", shown<&urlf_request::dst_if_index, number<>>},
    {"src_if_index", shown<&urlf_request::src_if_index, number<>>},
    {"trailer_word2", shown<&urlf_request::trailer_word2, number<>>},
    {"trailer_word3", shown<&urlf_request::trailer_word3, number<>>},
    {"dst_if_name", shown<&urlf_request::dst_if_name, full_text>},
    {"src_if_name", shown<&urlf_request::src_if_name, full_text>},
    {"domain_length", shown<&urlf_request::domain_length, number<>>},
    {"domain", shown<&urlf_request::domain, text<>>},
};

inline constexpr named_number URLF_STATUSES[] = {
    {"no categories", URLF_STATUS_NO_LIST},
    {"server unreachable", URLF_STATUS_UNREACHABLE},
};

ordered_json examined_categories(const urlf_answer &from);

inline constexpr field<urlf_answer> CATEGORY_ANSWER_FIELDS[] = {
    {"status", shown<&urlf_answer::status, number_or_word<URLF_STATUSES>>},
    {"reputation", shown<&urlf_answer::reputation, number<>>},
    {"categories", {nullptr, examined_categories, nullptr}},
    {"category_count", shown<&urlf_answer::category_count, number<>>},
};

inline constexpr field<uf_agent_reply> LATE_ANSWER_FIELDS[] = {
    {"answer", shown<&uf_agent_reply::answer, record<CATEGORY_ANSWER_FIELDS>>},
    {"request", shown<&uf_agent_reply::request, record<CATEGORY_REQUEST_FIELDS>>},
};

} // namespace jornctl
