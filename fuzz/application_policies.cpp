// The application-policy file as somebody may have left it. What was read of it is written, read
// and written again: from the second writing on the file stays the same. (The first may hold a name
// that was cut behind a space, and a policy that has no rule with a name.)
#include "control/files/configuration.h"
#include "control/tables/arc_tables.h"
#include "settled_file.h"
#include "support/saved_folder.h"

#include <cstdlib>
#include <string>

namespace {

const saved_folder &folder() {
    static const saved_folder own;
    return own;
}

void restore(const std::string &content) {
    jorn_process_arc_policy_flush();
    jorn_process_utp_flush();
    jorn_state.userdef_apps = {};
    if (content.empty())
        return;
    folder().write(APPLICATION_POLICY_FILE, content);
    if (!restore_configuration() || jorn_state.userdef_apps.count < 0 ||
        jorn_state.userdef_apps.count > USERDEF_APPS_MAX)
        abort();
}

std::string written() {
    jorn_save_configuration();
    return folder().read(APPLICATION_POLICY_FILE);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    check_that_file_settles(data, size, restore, written);
    return 0;
}
