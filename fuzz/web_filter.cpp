// The web-filter file as somebody may have left it. What was read of it is written, read and
// written again: from the second writing on the file stays the same. (The first may hold a name
// that was cut behind a space, or a uuid with a blank before it.)
#include "support/fresh_state.h"
#include "support/saved_folder.h"
#include "webfilter/web_file.h"
#include "webfilter/web_tables.h"

#include <cstdlib>
#include <string>

namespace {

std::string written(const saved_folder &folder) {
    jorn_save_web_configuration();
    return folder.read(WEB_FILTER_FILE);
}

void load() {
    jorn_state.web_intf_list.release_all();
    jorn_load_web_configurations();
    for (const web_policy &policy : jorn_state.web_policy_list) {
        if (policy.num_categories > WEB_CATEGORIES_MAX || policy.num_whitelist > WEB_PATTERNS_MAX ||
            policy.num_blacklist > WEB_PATTERNS_MAX)
            abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const saved_folder folder;
    static const int ready = (silence_log(1), 1);
    (void)ready;
    platform = {};
    folder.write(WEB_FILTER_FILE, {reinterpret_cast<const char *>(data), size});
    load();
    written(folder);
    load();
    const std::string settled = written(folder);
    load();
    if (written(folder) != settled)
        abort();
    jorn_process_web_policy_flush();
    jorn_state.web_intf_list.release_all();
    return 0;
}
