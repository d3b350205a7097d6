#include "wificalling/show_wificalling.h"

#include "core/base/reply.h"
#include "core/state/state.h"
#include "core/text/ipv4_text.h"
#include "core/text/text.h"
#include "wificalling/lines/wificalling_listing.h"

namespace {

constexpr const wificalling_listing &CELLS = WIFICALLING_LISTING;

// Names and addresses of the ePDGs, a line each. A carrier without one shows its first place.
void list_epdgs(line_buffer &text, const wificalling_policy &policy) {
    const int last = policy.num_epdg != 0 ? policy.num_epdg - 1 : 0;
    text.cell(CELLS.fqdns);
    for (int i = 0; i < last; ++i)
        text.format("%s%c", printable_text(policy.epdg[i].fqdn).c_str(), LISTED_EPDG_SEPARATOR);
    text.cell(CELLS.last_fqdn, printable_text(policy.epdg[last].fqdn).c_str());
    text.cell(CELLS.ipaddrs);
    for (int i = 0; i < last; ++i)
        text.format(" %s%c", ipv4_text(policy.epdg[i].ipaddr).c_str(), LISTED_EPDG_SEPARATOR);
    text.cell(CELLS.last_ipaddr, ipv4_text(policy.epdg[last].ipaddr).c_str());
}

void list_policy(line_buffer &text, const wificalling_policy &policy) {
    text.cell(CELLS.priority, policy.priority);
    list_epdgs(text, policy);
    text.append("\n");
}

// Each binding in one piece: the listing ends with the last one that fits.
void list_bindings(line_buffer &text) {
    for (const wificalling_intf &binding : jorn_state.wificalling_intf_list) {
        if (binding.ifname[0] == '\0')
            continue;
        char piece[WIFICALLING_BINDING_TEXT];
        jorn_format_wificalling_intf(piece, sizeof piece, &binding);
        text.append(piece);
    }
}

} // namespace

int jorn_show_wificalling_intf(int fd) {
    return answer(fd, list_bindings);
}

int jorn_format_wificalling_intf(char *text, size_t size, const wificalling_intf *binding) {
    line_buffer to(text, size, when_full::leave_out);
    to.cell(CELLS.ifname, printable_text(binding->ifname).c_str());
    for (int i = 0; i < binding->num_profiles; ++i) {
        to.cell(CELLS.number, i + 1);
        to.cell(CELLS.profile, printable_text(binding->profile[i]).c_str());
        if (binding->policy_ref[i] != nullptr)
            list_policy(to, *binding->policy_ref[i]);
    }
    to.append("\n");
    return 0;
}
