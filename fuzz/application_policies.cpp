// The application-policy file as somebody may have left it. What was read of it is written, read
// and written again: from the second writing on the file stays the same. (The first may hold a name
// that was cut behind a space, and a policy that has no rule with a name.)
#include "control/files/configuration.h"
#include "control/tables/arc_tables.h"
#include "core/base/settings.h"
#include "core/state/state.h"

#include <cstdlib>
#include <string>
#include <syslog.h>

namespace {

void set_up() {
    jorn_settings.daemonize = 1; // lines are formatted, then go nowhere
    jorn_settings.debug = 1;
    setlogmask(LOG_MASK(LOG_EMERG));
}

void restore(const std::string &content) {
    jorn_process_arc_policy_flush();
    jorn_process_utp_flush();
    jorn_state.userdef_apps = {};
    if (content.empty())
        return;
    FILE *file = fmemopen(const_cast<char *>(content.data()), content.size(), "r");
    restore_configuration(file, "the file");
    fclose(file);
    if (jorn_state.userdef_apps.count < 0 || jorn_state.userdef_apps.count > USERDEF_APPS_MAX)
        abort();
}

std::string written() {
    char *text = nullptr;
    size_t size = 0;
    FILE *file = open_memstream(&text, &size);
    if (jorn_write_arc_policy_configuration(file) != 0 ||
        jorn_write_userdef_configuration(file) != 0)
        abort();
    fclose(file);
    std::string content(text, size);
    free(text);
    return content;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const int ready = (set_up(), 1);
    (void)ready;
    restore({reinterpret_cast<const char *>(data), size});
    restore(written());
    const std::string settled = written();
    restore(settled);
    if (written() != settled)
        abort();
    restore({});
    return 0;
}
