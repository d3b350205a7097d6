// The fields of user-defined applications. Their keys are the names of the record's members.
#pragma once

#include "jornctl/fields/arc_fields.h"
#include "userapps/records/apps.h"

#include <netinet/in.h>

namespace jornctl {

inline constexpr named_number PROTOCOLS[] = {{"tcp", IPPROTO_TCP}, {"udp", IPPROTO_UDP}};

// The addresses, each with its family.
void read_src_ip(const node &from, userdef_app &to);
ordered_json src_ip_words(const userdef_app &from);
ordered_json src_ip_schema();
// With the prefix length that the mask stands for.
void read_dst_ip(const node &from, userdef_app &to);
ordered_json dst_ip_words(const userdef_app &from);
ordered_json dst_ip_schema();
// What dst_ip left, when it had no prefix length.
void read_netmask(const node &from, userdef_app &to);
ordered_json netmask_words(const userdef_app &from);
ordered_json netmask_schema();

inline constexpr field<userdef_app> APPLICATION_FIELDS[] = {
    {"app_name", at<&userdef_app::app_name, file_text<POLICY_FILE, 1, USERDEF_NAME_MAX>>, REQUIRED},
    {"src_ip", {read_src_ip, src_ip_words, src_ip_schema}, OPTIONAL, "kept; restricts nothing"},
    {"src_port", at<&userdef_app::src_port, number<>>, OPTIONAL, "kept; restricts nothing"},
    {"dst_ip",
     {read_dst_ip, dst_ip_words, dst_ip_schema},
     OPTIONAL,
     "a host or a network, on either side of a packet"},
    {"netmask",
     {read_netmask, netmask_words, netmask_schema},
     OPTIONAL,
     "of a dst_ip without prefix length",
     "dst_ip"},
    {"dst_port", at<&userdef_app::dst_port, number<>>, OPTIONAL, "on either side of a packet"},
    {"protocol", at<&userdef_app::protocol, word<PROTOCOLS>>},
    {"app_id", at<&userdef_app::app_id, number<>>, OPTIONAL, "what its flows are reported as"},
    {"cat_id", at<&userdef_app::cat_id, number_or_word<CATEGORIES>>, OPTIONAL,
     "what its flows are reported as"},
};

} // namespace jornctl
