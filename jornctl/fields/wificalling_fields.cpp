#include "jornctl/fields/wificalling_fields.h"

namespace jornctl {
namespace {

constexpr uint8_t DELETED = 0;
constexpr uint8_t ENABLED = 1;

} // namespace

std::string wificalling_separators() {
    return {WIFICALLING_POLICY_LINE.split.separator, WIFICALLING_LIST_SEPARATOR};
}

void epdg_kind::read(const node &from, epdg_entry &to) {
    record::read(from, to);
    if (to.fqdn[0] == '\0' && to.ipaddr == 0)
        from.refuse("has neither an fqdn nor an ipaddr");
}

void read_wificalling_delete(const node &from, wificalling_intf_wire &to) {
    to.enable = flag_in(from) ? DELETED : ENABLED;
}

ordered_json wificalling_delete_words(const wificalling_intf_wire &from) {
    if (from.enable == DELETED || from.enable == ENABLED)
        return from.enable == DELETED;
    return "enable " + std::to_string(from.enable);
}

void wificalling_intf_kind::read(const node &from, wificalling_intf_wire &to) {
    record::read(from, to);
    if (!from.has("delete"))
        to.enable = ENABLED;
    if (to.enable == ENABLED && to.num_profiles == 0)
        from.refuse("has no profile");
}

} // namespace jornctl
