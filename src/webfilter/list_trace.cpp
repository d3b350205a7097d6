#include "webfilter/list_trace.h"

#include "core/base/log.h"
#include "core/text/text.h"
#include "webfilter/policy_index.h"

namespace {

constexpr char CHECK_LISTS[] = "jorn_check_white_black_list";

// An empty pattern ends the search.
void note_pattern(const web_pattern &examined, bool is_white) {
    JORN_DEBUG_AS(CHECK_LISTS, "UI Configured %s-list domain name %s\n",
                  is_white ? "white" : "black", printable_text(examined).c_str());
    if (examined[0] == '\0')
        return;
    const std::string_view core = pattern_core(examined);
    if (!is_white)
        JORN_DEBUG_AS(CHECK_LISTS, "Domain start %s and len %d \n",
                      printable_text(core.data()).c_str(), static_cast<int>(core.size()));
    JORN_DEBUG_AS(CHECK_LISTS, "Extracted domain %s \n", printable_text(core).c_str());
}

// Says of a list what was examined up to the pattern that decided. Returns whether the search went
// on behind it.
bool note_list(const web_pattern_list &list, uint8_t count, bool is_white, int decided) {
    const unsigned usable = usable_patterns(list, count);
    for (unsigned i = 0; i < usable; ++i) {
        note_pattern(list[i], is_white);
        if (static_cast<int>(i) == decided)
            return false;
    }
    if (usable == count)
        return true;
    note_pattern(list[usable], is_white);
    return false;
}

} // namespace

void trace_list_search(const web_policy &policy, int decided) {
    if (!jorn_log_enabled(JORN_LOG_DEBUG))
        return;
    constexpr int FIRST_BLACK = web_policy_index::FIRST_BLACK;
    if (note_list(policy.whitelist, policy.num_whitelist, true, decided))
        note_list(policy.blacklist, policy.num_blacklist, false,
                  decided != NO_PATTERN ? decided - FIRST_BLACK : NO_PATTERN);
}
