#include "webfilter/web_show.h"

#include "control/tables/arc_tables.h"
#include "core/base/log.h"
#include "core/base/reply.h"
#include "core/state/state.h"
#include "core/text/ipv4_text.h"
#include "core/text/text.h"
#include "platform/psm.h"

#include <iterator>

namespace {

void list_categories(line_buffer &text, const web_policy_wire &policy) {
    text.format("No of Blocked categories:%d\n", policy.num_categories);
    if (policy.num_categories == 0)
        return;
    text.append("Blocked categories:\n");
    for (unsigned i = 0; i < policy.num_categories; ++i) {
        const int32_t id = policy.categories[i];
        if (id >= 0 && static_cast<size_t>(id) < std::size(g_cat_map))
            text.format("\t%s\n", g_cat_map[id] + 1);
        else
            text.format("\t%d\n", id);
    }
    text.append("\n");
}

void list_patterns(line_buffer &text, const char *what, const web_pattern_list &list,
                   uint8_t count) {
    if (count == 0) {
        text.format("%s-Domains: Not Configured\n", what);
        return;
    }
    text.format("%s-Domains:\n", what);
    for (unsigned i = 0; i < count; ++i)
        text.format("\t%s\n", printable_text(list[i]).c_str());
    text.append("\n");
}

void list_safe_search(line_buffer &text, const web_policy_wire &policy) {
    if (policy.google_safe_search == 1)
        text.format("Google Safe Search VIP: %s\n", ipv4_text(policy.google_vip).c_str());
    else
        text.append("GoogleSafeSearch: Disable\n");
    if (policy.youtube_safe_search == 1)
        text.format("YouTube Safe Search VIP: %s\n", ipv4_text(policy.youtube_vip).c_str());
    else
        text.append("YoutubeSafeSearch: Disable\n");
    if (policy.bing_safe_search == 1)
        text.format("Bing Safe Search VIP: %s\n", ipv4_text(policy.bing_vip).c_str());
    else
        text.append("BingSafeSearch: Disable\n");
}

void append_policy(line_buffer &text, const web_policy_wire &policy) {
    char listed[WEB_POLICY_TEXT_SIZE];
    jorn_format_web_policy_text(listed, sizeof listed, policy);
    text.append(listed);
}

void list_interface(line_buffer &text, std::string_view ifname) {
    const web_intf *binding = jorn_state.web_intf_list.find(
        [ifname](const web_intf &listed) { return ifname == listed.ifname; });
    if (binding == nullptr) {
        text.format("\nInterface %s not present \n", printable_text(ifname).c_str());
        return;
    }
    JORN_DEBUG_AS("jorn_process_per_intf_url_policy_list", "Found intf match\n");
    const char *state = binding->enable == 1 ? "Enable" : "Disable";
    if (binding->policy == nullptr) {
        text.format("\nURL Filtering is: %s\n", state);
        text.append("\n==== No URL Filtering Policy Attached ====\n");
        return;
    }
    text.format("\nURL Filtering is: %s\tPolicy UUID: %s\n", state,
                printable_text(binding->policy_uuid).c_str());
    append_policy(text, *binding->policy);
}

void list_utp(line_buffer &text, uint32_t utp_id) {
    if (!is_utp_id(utp_id)) {
        text.append("\n Invalid UTP ID \n");
        return;
    }
    const utp_entry<web_policy> &entry = jorn_state.web_utp_table[utp_id - 1];
    if (entry.id == 0) {
        text.format("\nUTP ID %d not preset \n", static_cast<int>(utp_id));
        return;
    }
    const printable_text name(entry.name);
    const int id = static_cast<int>(entry.id);
    if (entry.policy == nullptr) {
        text.format("\nUTP Name: %s \tID: %d\n", name.c_str(), id);
        text.append("\n==== No Web Policy Attached ====\n");
        return;
    }
    text.format("\nUTP Name: %s \tID: %d \nPolicy Name: %s \tPolicy UUID: %s \n", name.c_str(), id,
                printable_text(entry.policy->name).c_str(),
                printable_text(entry.policy->uuid).c_str());
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
        listed.format("Filter_Type: %s\t", WEB_FILTER_TYPES[policy.filter_type]);
    list_categories(listed, policy);
    list_patterns(listed, "Whitelist", policy.whitelist, policy.num_whitelist);
    list_patterns(listed, "Blacklist", policy.blacklist, policy.num_blacklist);
    list_safe_search(listed, policy);
    listed.append("\n");
    return 0;
}
