// The listing of the DNS cache, command 10.
#pragma once

#include "core/text/listing.h"

struct dns_listing {
    listing_cell title = {"\n", "====JORN DNS CACHE====", "\n"};
    listing_cell ip = {"\t", " dst ip: ", "\n"};
    listing_cell app_name = {"\t", " application name: ", "\n"};
    listing_cell age = {"\t", " aging time: ", "\n\n"};
};
inline constexpr dns_listing DNS_LISTING = {};
