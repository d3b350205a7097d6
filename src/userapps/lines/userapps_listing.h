// The listings of the administrator's applications: command 7, those that he defined, and command
// 14, the port-service list.
#pragma once

#include "core/text/listing.h"

inline constexpr size_t USERDEF_APP_TEXT = 8192; // one definition

struct userdef_listing {
    listing_cell title = {"\n", "====User Defined Applications Policies====", "\n"};
    listing_cell bitmap = {"\t", " bitmap: ", " \n"}; // hexadecimal
    listing_cell dst_family = {"\t", " dst ip family:", ""};
    listing_cell dst_ip = {"\t", "dst ip:", "\n"};
    listing_cell netmask = {"\t", " dst netmask:", ""};
    listing_cell dst_port = {"\t", " dst port :", ""};
    listing_cell protocol = {"\t", " protocol type:", "\n"};
    listing_cell app_name = {"\t", " application name:", " "};
    listing_cell app_id = {"\t", " application id: ", ""};
    listing_cell cat_id = {"\t", " category id: ", "\n"};
};
inline constexpr userdef_listing USERDEF_LISTING = {};

inline constexpr size_t PORT_APP_TEXT = 1024; // one entry of the list

struct port_app_listing {
    listing_cell title = {"\n", "====JORN port app list====", "\n"};
    listing_cell app_name = {"\t", " application name: ", "\n"};
    listing_cell begin_port = {"\t", " begin port: ", "\n"};
    listing_cell end_port = {"\t", " end port: ", "\n"};
    listing_cell tcp_flag = {"\t", " tcp proto flag: ", "\n"};
    listing_cell udp_flag = {"\t", " udp proto flag: ", "\n"};
};
inline constexpr port_app_listing PORT_APP_LISTING = {};
