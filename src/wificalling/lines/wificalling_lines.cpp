#include "wificalling/lines/wificalling_lines.h"

#include "core/text/ipv4_text.h"

#include <arpa/inet.h>

namespace {

constexpr size_t IFNAME_MAX = 16; // of the 18 that the field could hold
constexpr list_format EPDGS = {.separator = WIFICALLING_LIST_SEPARATOR, .empty = ",0.0.0.0"};
constexpr list_format PROFILES = {.separator = WIFICALLING_LIST_SEPARATOR};

size_t within(int64_t count, int32_t most) {
    return static_cast<size_t>(std::clamp<int64_t>(count, 0, most));
}

// 0 for what is no address.
uint32_t address_of(std::string_view text) {
    char terminated[INET_ADDRSTRLEN] = {};
    in_addr address = {};
    if (text.size() < sizeof terminated)
        copy_text(terminated, text);
    return inet_pton(AF_INET, terminated, &address) == 1 ? address.s_addr : 0;
}

void read_num_epdg(std::string_view text, wificalling_policy_wire &to) {
    const auto count = static_cast<uint8_t>(leading_decimal(text));
    to.num_epdg = static_cast<uint8_t>(within(count, EPDGS_PER_POLICY));
}

void write_num_epdg(text_appender &to, const wificalling_policy_wire &from) {
    to.number(from.num_epdg);
}

// The list is one of names and addresses in turn.
void read_epdgs(std::string_view text, wificalling_policy_wire &to) {
    memset(to.epdg, 0, sizeof to.epdg);
    read_list(text, EPDGS, 2 * within(to.num_epdg, EPDGS_PER_POLICY),
              [&to](size_t i, std::string_view item) {
                  epdg_entry &epdg = to.epdg[i / 2];
                  if (i % 2 == 0)
                      copy_text(epdg.fqdn, item);
                  else
                      epdg.ipaddr = address_of(item);
              });
}

void write_epdgs(text_appender &to, const wificalling_policy_wire &from) {
    write_list(to, EPDGS, within(from.num_epdg, EPDGS_PER_POLICY), [&](size_t i) {
        to.append(field_text(from.epdg[i].fqdn));
        to.append(",");
        to.append(ipv4_text(from.epdg[i].ipaddr).c_str());
    });
}

void read_num_profiles(std::string_view text, wificalling_intf_wire &to) {
    to.num_profiles = static_cast<int32_t>(within(leading_decimal(text), PROFILES_PER_INTF));
}

void write_num_profiles(text_appender &to, const wificalling_intf_wire &from) {
    to.number(from.num_profiles);
}

void read_profiles(std::string_view text, wificalling_intf_wire &to) {
    read_list(text, PROFILES, within(to.num_profiles, PROFILES_PER_INTF),
              [&to](size_t i, std::string_view item) { copy_text(to.profile[i], item); });
}

void write_profiles(text_appender &to, const wificalling_intf_wire &from) {
    write_list(to, PROFILES, within(from.num_profiles, PROFILES_PER_INTF),
               [&](size_t i) { to.append(field_text(from.profile[i])); });
}

constexpr line_field<wificalling_policy_wire> POLICY_FIELDS[] = {
    text_field<&wificalling_policy_wire::pname>("pname"),
    text_field<&wificalling_policy_wire::alt_name>("alt_name"),
    number_field<&wificalling_policy_wire::priority>("priority"),
    {"num_epdg", read_num_epdg, write_num_epdg},
    {"epdg", read_epdgs, write_epdgs},
};

constexpr line_field<wificalling_intf_wire> INTF_FIELDS[] = {
    text_field<&wificalling_intf_wire::ifname, IFNAME_MAX>("ifname"),
    number_field<&wificalling_intf_wire::enable>("enable"),
    number_field<&wificalling_intf_wire::intf_value>("intf_value"),
    {"num_profiles", read_num_profiles, write_num_profiles},
    {"profile", read_profiles, write_profiles},
};

} // namespace

constexpr line_format<wificalling_policy_wire> WIFICALLING_POLICY_LINE = {{.separator = ';'},
                                                                          POLICY_FIELDS};
constexpr line_format<wificalling_intf_wire> WIFICALLING_INTF_LINE = {{.separator = ';'},
                                                                      INTF_FIELDS};
