#include "control/show_utp.h"

#include "core/base/reply.h"
#include "core/state/state.h"
#include "core/text/text.h"

namespace {

template <typename Policy>
printable_text policy_name(const Policy *policy) {
    return printable_text(policy != nullptr ? std::string_view(policy->name) : "None");
}

// Each entry in one piece: the listing ends with the last one that fits.
void list_utps(line_buffer &text) {
    for (size_t i = 0; i < UTP_ID_MAX; ++i) {
        const utp_entry<arc_policy> &entry = jorn_state.arc_utp_table[i];
        if (entry.id == 0)
            continue;
        text.format("\n\tUTP Name  : %s\n\tUTP ID    : %d\n\tAVC policy: %s\n\tWeb policy: %s\n",
                    printable_text(entry.name).c_str(), static_cast<int>(entry.id),
                    policy_name(entry.policy).c_str(),
                    policy_name(jorn_state.web_utp_table[i].policy).c_str());
    }
    if (text.text().empty())
        text.append("\n No UTP configured! \n");
}

} // namespace

int jorn_show_utp(int fd) {
    return answer(fd, list_utps);
}
