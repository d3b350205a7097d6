#include "control/files/configuration.h"

#include "control/files/arc_section.h"
#include "core/files/saved_file.h"
#include "userapps/userdef_section.h"

void jorn_save_configuration() {
    save_file(APPLICATION_POLICY_FILE,
              {{jorn_write_arc_policy_configuration, "write AVC policy configuration failed\n"},
               {jorn_write_userdef_configuration, "write userdef configuration failed\n"}},
              JORN_HERE);
}

bool restore_configuration() {
    const log_origin from = JORN_AS("jorn_load_configurations");
    pending_arc_policy policy = {};
    pending_userdefs userdefs = {};
    file_section policy_section(ARC_POLICY_SECTION, policy, from);
    file_section userdef_section(USERDEF_SECTION, userdefs, from);
    return load_file(APPLICATION_POLICY_FILE, {&policy_section, &userdef_section}, from);
}
