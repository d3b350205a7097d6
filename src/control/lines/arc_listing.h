// The listings of ARC: command 4, what a policy gives to each of its applications, and command 25,
// the user traffic profiles.
#pragma once

#include "core/text/listing.h"

inline constexpr size_t PRIORITY_LISTING_SIZE = 20'480; // of the rules
inline constexpr size_t PRIORITY_PIECE_MAX = 100;       // no cell of a rule is longer

struct priority_listing {
    listing_cell invalid = {"\n", " Invalid ARC PCY ID ", "\n"};
    listing_cell name = {"\n", " ARC Policy Name: ", " \n"};
    listing_cell app_id = {"\t", "App Id:", "\t"};
    listing_cell cat_id = {"", "Cat Id:", "\n"};
    listing_cell cat_id_user_defined = {"", "Cat Id:", " (User Defined)\n"};
    listing_cell app_name = {"\t", "App Name:", " "};
    listing_cell cat_name = {"\t", "Cat Name:", "\n"};
    listing_cell deny = {"\t", "Rule:Deny ", "\n"};
    listing_cell mark_kind = {"\t", "QoS mark pri:", ""};
    listing_cell mark_type = {"\t", "QoS mark type:", "\n"};
    listing_cell classify = {"\t", "QoS classify pri:Priority", ""};
    listing_cell classify_type = {"\t", "QoS classify type:", "\n"};
    listing_cell rate_up = {"\t", "Ratelimit Uplink:", ""};
    listing_cell rate_down = {"\t", "Ratelimit Downlink:", "\n"};
};
inline constexpr priority_listing PRIORITY_LISTING = {};

inline constexpr size_t UTP_LISTING_SIZE = 2048; // of one entry
inline constexpr std::string_view LISTED_NO_POLICY = "None";

struct utp_listing {
    listing_cell none = {"\n", " No UTP configured! ", "\n"};
    listing_cell name = {"\n\t", "UTP Name  : ", "\n"};
    listing_cell id = {"\t", "UTP ID    : ", "\n"};
    listing_cell arc_policy = {"\t", "AVC policy: ", "\n"};
    listing_cell web_policy = {"\t", "Web policy: ", "\n"};
};
inline constexpr utp_listing UTP_LISTING = {};
