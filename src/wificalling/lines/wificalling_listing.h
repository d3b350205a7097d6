// The listing of Wi-Fi calling, command 37: the interface bindings with their carriers.
#pragma once

#include "core/text/listing.h"

inline constexpr size_t WIFICALLING_BINDING_TEXT = 8000; // holds the longest binding there is

struct wificalling_listing {
    listing_cell ifname = {"", "Interface Name: ", "\n"};
    listing_cell number = {"", "(", ""}; // of the profile, which follows
    listing_cell profile = {"", ") Policy Name: ", "\n"};
    listing_cell priority = {"", "Priority: ", "\n"};
    listing_cell fqdns = {"", "FQDN: ", ""}; // each but the last with a comma behind it
    listing_cell last_fqdn = {"", " ", "\n"};
    listing_cell ipaddrs = {"", "IPaddr:", ""}; // each but the last between a blank and a comma
    listing_cell last_ipaddr = {"", "", "\n"};
};
inline constexpr wificalling_listing WIFICALLING_LISTING = {};
inline constexpr char LISTED_EPDG_SEPARATOR = ',';
