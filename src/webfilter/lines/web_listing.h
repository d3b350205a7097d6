// The listings of URL filtering: command 32, an interface, and command 33, a web UTP, both with the
// text of their policy.
#pragma once

#include "core/text/listing.h"

struct web_intf_listing {
    listing_cell absent = {"\n", "Interface ", " not present \n"};
    listing_cell enable = {"\n", "URL Filtering is: ", ""};
    listing_cell policy_uuid = {"\t", "Policy UUID: ", "\n"};
    listing_cell no_policy = {"\n\n", "==== No URL Filtering Policy Attached ====", "\n"};
};
inline constexpr web_intf_listing WEB_INTF_LISTING = {};
inline constexpr std::string_view LISTED_ENABLED = "Enable";
inline constexpr std::string_view LISTED_DISABLED = "Disable";

struct web_utp_listing {
    listing_cell invalid = {"\n", " Invalid UTP ID ", "\n"};
    listing_cell absent = {"\n", "UTP ID ", " not preset \n"};
    listing_cell name = {"\n", "UTP Name: ", " "};
    listing_cell id = {"\t", "ID: ", ""};
    listing_cell policy_name = {" \n", "Policy Name: ", " "};
    listing_cell policy_uuid = {"\t", "Policy UUID: ", " \n"};
    listing_cell no_policy = {"\n\n", "==== No Web Policy Attached ====", "\n"};
};
inline constexpr web_utp_listing WEB_UTP_LISTING = {};

// A policy's text. It is cut behind a line: one that is whole has the line of Bing.
inline constexpr size_t WEB_POLICY_TEXT_SIZE = 4096;

struct web_policy_listing {
    listing_cell filter_type = {"", "Filter_Type: ", "\t"};
    listing_cell num_categories = {"", "No of Blocked categories:", "\n"};
    listing_cell categories = {"", "Blocked categories:", "\n"}; // items, and an empty line
    listing_cell no_whitelist = {"", "Whitelist-Domains: Not Configured", "\n"};
    listing_cell whitelist = {"", "Whitelist-Domains:", "\n"}; // the same
    listing_cell no_blacklist = {"", "Blacklist-Domains: Not Configured", "\n"};
    listing_cell blacklist = {"", "Blacklist-Domains:", "\n"}; // the same
    listing_cell no_google = {"", "GoogleSafeSearch: Disable", "\n"};
    listing_cell google_vip = {"", "Google Safe Search VIP: ", "\n"};
    listing_cell no_youtube = {"", "YoutubeSafeSearch: Disable", "\n"};
    listing_cell youtube_vip = {"", "YouTube Safe Search VIP: ", "\n"};
    listing_cell no_bing = {"", "BingSafeSearch: Disable", "\n"};
    listing_cell bing_vip = {"", "Bing Safe Search VIP: ", "\n"};
};
inline constexpr web_policy_listing WEB_POLICY_LISTING = {};
