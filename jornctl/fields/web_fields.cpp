#include "jornctl/fields/web_fields.h"

namespace jornctl {

std::string web_policy_separators() {
    return {WEB_POLICY_LINE.split.separator};
}

std::string web_pattern_separators() {
    return {WEB_POLICY_LINE.split.separator, WEB_LIST_SEPARATOR};
}

std::string web_binding_separators() {
    return {WEB_INTF_LINE.split.separator};
}

void web_policy_kind::read(const node &from, web_policy_wire &to) {
    record::read(from, to);
    const struct {
        const char *flag;
        const char *vip;
        bool is_forced;
        uint32_t address_be;
    } engines[] = {
        {"google_safe_search", "google_vip", to.google_safe_search != 0, to.google_vip},
        {"bing_safe_search", "bing_vip", to.bing_safe_search != 0, to.bing_vip},
        {"youtube_safe_search", "youtube_vip", to.youtube_safe_search != 0, to.youtube_vip},
    };
    for (const auto &each : engines) {
        if (each.is_forced && each.address_be == 0 && !from.has_mistake_in(each.vip))
            from.at(each.flag).blame(std::string("needs a ") + each.vip);
    }
}

void read_web_delete(const node &from, web_intf_wire &to) {
    to.op = flag_in(from) ? WEB_INTF_DELETE : WEB_INTF_ADD;
}

ordered_json web_delete_words(const web_intf_wire &from) {
    if (from.op == WEB_INTF_DELETE || from.op == WEB_INTF_ADD)
        return from.op == WEB_INTF_DELETE;
    return "op " + std::to_string(from.op);
}

void web_intf_kind::read(const node &from, web_intf_wire &to) {
    record::read(from, to);
    if (to.op == 0)
        to.op = WEB_INTF_ADD;
}

} // namespace jornctl
