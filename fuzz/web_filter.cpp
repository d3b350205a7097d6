// The web-filter file as somebody may have left it. What was read of it is written, read and
// written again: from the second writing on the file stays the same. (The first may hold a name
// that was cut behind a space, or a uuid with a blank before it.)
#include "settled_file.h"
#include "support/saved_folder.h"
#include "webfilter/web_file.h"
#include "webfilter/web_tables.h"

#include <cstdlib>
#include <string>

namespace {

const saved_folder &folder() {
    static const saved_folder own;
    return own;
}

void restore(const std::string &content) {
    jorn_state.web_intf_list.release_all();
    folder().write(WEB_FILTER_FILE, content);
    jorn_load_web_configurations();
    for (const web_policy &policy : jorn_state.web_policy_list) {
        if (policy.num_categories > WEB_CATEGORIES_MAX || policy.num_whitelist > WEB_PATTERNS_MAX ||
            policy.num_blacklist > WEB_PATTERNS_MAX)
            abort();
    }
}

std::string written() {
    jorn_save_web_configuration();
    return folder().read(WEB_FILTER_FILE);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    check_that_file_settles(data, size, restore, written);
    return 0;
}
