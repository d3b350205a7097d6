#include "jornctl/fields/userapps_fields.h"

#include "jornctl/base/addresses.h"

#include <sys/socket.h>

namespace jornctl {
namespace {

constexpr char WHAT_IT_MUST_BE[] = "; it must be an IPv4 address (the daemon compares no others), "
                                   "with a prefix length where it is "
                                   "a network";

network network_in(const node &from) {
    const std::optional<network> parsed = parse_network(string_in(from));
    if (!parsed)
        from.refuse("is " + from.described() + WHAT_IT_MUST_BE);
    return *parsed;
}

uint32_t first_word(const uint8_t (&address)[16]) {
    uint32_t word;
    memcpy(&word, address, sizeof word);
    return word;
}

ordered_json address_words(uint16_t family, const uint8_t (&address)[16]) {
    if (family == AF_INET)
        return format_address(first_word(address));
    return family == AF_INET6 ? ordered_json(format_ipv6(address)) : ordered_json();
}

ordered_json pattern_schema(const std::string &pattern) {
    return {{"type", "string"}, {"pattern", pattern}};
}

} // namespace

void read_src_ip(const node &from, userdef_app &to) {
    const network source = network_in(from);
    if (source.has_prefix)
        from.refuse("can't have a prefix length: the record keeps a mask for dst_ip only");
    to.src_family = AF_INET;
    memcpy(to.src_ip, &source.address_be, sizeof source.address_be);
}

ordered_json src_ip_words(const userdef_app &from) {
    return address_words(from.src_family, from.src_ip);
}

ordered_json src_ip_schema() {
    return pattern_schema(address_pattern());
}

void read_dst_ip(const node &from, userdef_app &to) {
    const network destination = network_in(from);
    to.dst_family = AF_INET;
    memcpy(to.dst_ip, &destination.address_be, sizeof destination.address_be);
    to.netmask = destination.mask_be;
}

ordered_json dst_ip_words(const userdef_app &from) {
    const std::optional<unsigned> prefix = prefix_of(from.netmask);
    if (from.dst_family != AF_INET || !prefix)
        return address_words(from.dst_family, from.dst_ip);
    return format_network(first_word(from.dst_ip), *prefix);
}

ordered_json dst_ip_schema() {
    return pattern_schema(network_pattern());
}

// Its row stands behind that of dst_ip, whose mask it replaces.
void read_netmask(const node &from, userdef_app &to) {
    const std::optional<uint32_t> mask = parse_netmask(string_in(from));
    if (!mask)
        from.refuse("is " + from.described() + "; it must be a mask like \"255.255.0.0\"");
    if (to.dst_family != 0 && to.netmask != INADDR_NONE) // the row of dst_ip could be read
        from.refuse("can't stand beside the prefix length of dst_ip");
    to.netmask = *mask;
}

// What no prefix length says.
ordered_json netmask_words(const userdef_app &from) {
    const bool is_said = from.dst_family == AF_INET && prefix_of(from.netmask);
    return is_said || from.netmask == 0 ? ordered_json()
                                        : ordered_json(format_address(from.netmask));
}

ordered_json netmask_schema() {
    return {{"enum", all_netmasks()}};
}

} // namespace jornctl
