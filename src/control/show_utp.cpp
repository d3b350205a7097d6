#include "control/show_utp.h"

#include "core/base/reply.h"
#include "core/state/state.h"
#include "core/text/text.h"

namespace {

constexpr size_t UTP_TEXT = 2048; // one entry

template <typename Policy>
void list_policy(line_buffer &text, const char *kind, const Policy *policy) {
    if (policy != nullptr)
        text.format("\t%s policy: %s\n", kind, printable_text(policy->name).c_str());
    else
        text.format("\t%s policy: %s\n", kind, "None");
}

// Each entry in one piece: the listing ends with the last one that fits.
void list_utps(line_buffer &text) {
    bool any = false;
    for (uint32_t i = 0; i < UTP_ID_MAX; ++i) {
        const utp_entry<arc_policy> &entry = jorn_state.arc_utp_table[i];
        if (entry.id == 0)
            continue;
        char piece[UTP_TEXT];
        line_buffer listed(piece, sizeof piece, when_full::leave_out);
        listed.format("\n\tUTP Name  : %s\n\tUTP ID    : %d\n", printable_text(entry.name).c_str(),
                      static_cast<int>(entry.id));
        list_policy(listed, "AVC", entry.policy);
        list_policy(listed, "Web", jorn_state.web_utp_table[i].policy);
        text.append(listed.text());
        any = true;
    }
    if (!any)
        text.append("\n No UTP configured! \n");
}

} // namespace

int jorn_show_utp(int fd) {
    return answer(fd, list_utps);
}
