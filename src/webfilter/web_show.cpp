#include "webfilter/web_show.h"

#include "control/tables/arc_tables.h"
#include "core/base/log.h"
#include "core/base/reply.h"
#include "core/state/state.h"
#include "core/text/ipv4_text.h"
#include "core/text/text.h"
#include "platform/psm.h"
#include "webfilter/lines/web_listing.h"

#include <iterator>

namespace {

constexpr const web_policy_listing &POLICY = WEB_POLICY_LISTING;

void list_categories(line_buffer &text, const web_policy_wire &policy) {
    text.cell(POLICY.num_categories, policy.num_categories);
    if (policy.num_categories == 0)
        return;
    text.cell(POLICY.categories);
    for (unsigned i = 0; i < policy.num_categories; ++i) {
        const int32_t id = policy.categories[i];
        if (id >= 0 && static_cast<size_t>(id) < std::size(g_cat_map))
            text.cell(LISTED_ITEM, g_cat_map[id] + 1);
        else
            text.cell(LISTED_ITEM, id);
    }
    text.append("\n");
}

void list_patterns(line_buffer &text, const listing_cell &none, const listing_cell &some,
                   const web_pattern_list &list, uint8_t count) {
    if (count == 0) {
        text.cell(none);
        return;
    }
    text.cell(some);
    for (unsigned i = 0; i < count; ++i)
        text.cell(LISTED_ITEM, printable_text(list[i]).c_str());
    text.append("\n");
}

void list_engine(line_buffer &text, const listing_cell &off, const listing_cell &on, uint8_t forced,
                 uint32_t vip) {
    if (forced == 1)
        text.cell(on, ipv4_text(vip).c_str());
    else
        text.cell(off);
}

void list_safe_search(line_buffer &text, const web_policy_wire &policy) {
    list_engine(text, POLICY.no_google, POLICY.google_vip, policy.google_safe_search,
                policy.google_vip);
    list_engine(text, POLICY.no_youtube, POLICY.youtube_vip, policy.youtube_safe_search,
                policy.youtube_vip);
    list_engine(text, POLICY.no_bing, POLICY.bing_vip, policy.bing_safe_search, policy.bing_vip);
}

void append_policy(line_buffer &text, const web_policy_wire &policy) {
    char listed[WEB_POLICY_TEXT_SIZE];
    jorn_format_web_policy_text(listed, sizeof listed, policy);
    text.append(listed);
}

void list_interface(line_buffer &text, std::string_view ifname) {
    const web_intf_listing &cells = WEB_INTF_LISTING;
    const web_intf *binding = jorn_state.web_intf_list.find(
        [ifname](const web_intf &listed) { return ifname == listed.ifname; });
    if (binding == nullptr) {
        text.cell(cells.absent, printable_text(ifname).c_str());
        return;
    }
    JORN_DEBUG_AS("jorn_process_per_intf_url_policy_list", "Found intf match\n");
    text.cell(cells.enable, binding->enable == 1 ? LISTED_ENABLED : LISTED_DISABLED);
    if (binding->policy == nullptr) {
        text.cell(cells.no_policy);
        return;
    }
    text.cell(cells.policy_uuid, printable_text(binding->policy_uuid).c_str());
    append_policy(text, *binding->policy);
}

void list_utp(line_buffer &text, uint32_t utp_id) {
    const web_utp_listing &cells = WEB_UTP_LISTING;
    if (!is_utp_id(utp_id)) {
        text.cell(cells.invalid);
        return;
    }
    const utp_entry<web_policy> &entry = jorn_state.web_utp_table[utp_id - 1];
    if (entry.id == 0) {
        text.cell(cells.absent, static_cast<int>(utp_id));
        return;
    }
    text.cell(cells.name, printable_text(entry.name).c_str());
    text.cell(cells.id, static_cast<int>(entry.id));
    if (entry.policy == nullptr) {
        text.cell(cells.no_policy);
        return;
    }
    text.cell(cells.policy_name, printable_text(entry.policy->name).c_str());
    text.cell(cells.policy_uuid, printable_text(entry.policy->uuid).c_str());
    append_policy(text, *entry.policy);
}

} // namespace

int jorn_process_per_intf_url_policy_list(int fd, std::string_view ifname) {
    return answer(fd, list_interface, ifname);
}

int jorn_show_utp_web_policy(int fd, uint32_t utp_id) {
    return answer(fd, list_utp, utp_id);
}

int jorn_format_web_policy_text(char *text, size_t size, const web_policy_wire &policy) {
    line_buffer listed(text, size);
    if (policy.filter_type < std::size(WEB_FILTER_TYPES))
        listed.cell(POLICY.filter_type, WEB_FILTER_TYPES[policy.filter_type]);
    list_categories(listed, policy);
    list_patterns(listed, POLICY.no_whitelist, POLICY.whitelist, policy.whitelist,
                  policy.num_whitelist);
    list_patterns(listed, POLICY.no_blacklist, POLICY.blacklist, policy.blacklist,
                  policy.num_blacklist);
    list_safe_search(listed, policy);
    listed.append("\n");
    return 0;
}
