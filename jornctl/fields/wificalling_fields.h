// The fields of Wi-Fi calling: carriers with their ePDGs, and the interfaces that they are bound
// to. Their keys are the names of the records' members.
#pragma once

#include "jornctl/fields/fields.h"
#include "wificalling/lines/wificalling_lines.h"
#include "wificalling/records/wificalling.h"

namespace jornctl {

// The Wi-Fi calling file, all of whose names are or stand beside lists.
std::string wificalling_separators();
inline constexpr file_format CARRIER_TEXT = {wificalling_separators, WIFICALLING_POLICY_MARKERS,
                                             false};
inline constexpr file_format CARRIER_BINDING_TEXT = {wificalling_separators,
                                                     WIFICALLING_INTF_MARKERS, false};
inline constexpr size_t WIFICALLING_IFNAME_MAX = 16;

inline constexpr field<epdg_entry> EPDG_FIELDS[] = {
    {"fqdn", at<&epdg_entry::fqdn, file_text<CARRIER_TEXT>>, OPTIONAL,
     "fits wherever it stands in the flow's domain"},
    {"ipaddr", at<&epdg_entry::ipaddr, address>},
};

struct epdg_kind : record<EPDG_FIELDS> {
    static void read(const node &from, epdg_entry &to);
};

inline constexpr field<wificalling_policy_wire> CARRIER_FIELDS[] = {
    {"pname", at<&wificalling_policy_wire::pname, file_text<CARRIER_TEXT, 1>>, REQUIRED},
    {"alt_name", at<&wificalling_policy_wire::alt_name, file_text<CARRIER_TEXT>>, OPTIONAL,
     "kept and saved, not interpreted"},
    {"priority", at<&wificalling_policy_wire::priority, number<>>, REQUIRED,
     "the traffic type that the carrier's packets are marked and queued as"},
    {"epdg", counted<&wificalling_policy_wire::num_epdg, &wificalling_policy_wire::epdg, epdg_kind>,
     OPTIONAL, "the carrier's gateways"},
};

// wificalling_intf_wire::enable, which deletes a binding where it is 0.
void read_wificalling_delete(const node &from, wificalling_intf_wire &to);
ordered_json wificalling_delete_words(const wificalling_intf_wire &from);

using profile_name = file_text<CARRIER_BINDING_TEXT, 1>;

inline constexpr field<wificalling_intf_wire> WIFICALLING_INTF_FIELDS[] = {
    {"ifname",
     at<&wificalling_intf_wire::ifname, file_text<CARRIER_BINDING_TEXT, 1, WIFICALLING_IFNAME_MAX>>,
     REQUIRED},
    {"intf_value", at<&wificalling_intf_wire::intf_value, number<>>, OPTIONAL,
     "kept and saved, not interpreted"},
    {"profile",
     counted<&wificalling_intf_wire::num_profiles, &wificalling_intf_wire::profile, profile_name>,
     OPTIONAL, "the names of carriers, in any letter case; needed unless the binding is deleted"},
    {"profile_alt", at<&wificalling_intf_wire::profile_alt, slots<text<>>>, OPTIONAL,
     "kept, neither interpreted nor saved"},
    {"delete",
     {read_wificalling_delete, wificalling_delete_words, flag_schema},
     OPTIONAL,
     "the interface has Wi-Fi calling no longer"},
};

struct wificalling_intf_kind : record<WIFICALLING_INTF_FIELDS> {
    static void read(const node &from, wificalling_intf_wire &to);
};

} // namespace jornctl
