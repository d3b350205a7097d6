#include "control/show_utp.h"

#include "control/lines/arc_listing.h"
#include "core/base/reply.h"
#include "core/state/state.h"
#include "core/text/text.h"

namespace {

template <typename Policy>
void list_policy(line_buffer &text, const listing_cell &cell, const Policy *policy) {
    if (policy != nullptr)
        text.cell(cell, printable_text(policy->name).c_str());
    else
        text.cell(cell, LISTED_NO_POLICY);
}

// Each entry in one piece: the listing ends with the last one that fits.
void list_utps(line_buffer &text) {
    const utp_listing &cells = UTP_LISTING;
    bool any = false;
    for (uint32_t i = 0; i < UTP_ID_MAX; ++i) {
        const utp_entry<arc_policy> &entry = jorn_state.arc_utp_table[i];
        if (entry.id == 0)
            continue;
        char piece[UTP_LISTING_SIZE];
        line_buffer listed(piece, sizeof piece, when_full::leave_out);
        listed.cell(cells.name, printable_text(entry.name).c_str());
        listed.cell(cells.id, static_cast<int>(entry.id));
        list_policy(listed, cells.arc_policy, entry.policy);
        list_policy(listed, cells.web_policy, jorn_state.web_utp_table[i].policy);
        text.append(listed.text());
        any = true;
    }
    if (!any)
        text.cell(cells.none);
}

} // namespace

int jorn_show_utp(int fd) {
    return answer(fd, list_utps);
}
