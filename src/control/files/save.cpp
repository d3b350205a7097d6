// On its own, so that a program which runs commands without a file links a function of its own.
#include "control/files/configuration.h"
#include "core/base/log.h"
#include "core/base/saved_file.h"

void jorn_save_configuration() {
    FILE *file = create_saved_file(SAVED_FILES_DIRECTORY, APPLICATION_POLICY_PATH, JORN_HERE);
    if (file == nullptr)
        return;
    if (jorn_write_arc_policy_configuration(file) != 0)
        JORN_ERROR("write AVC policy configuration failed\n");
    else if (jorn_write_userdef_configuration(file) != 0)
        JORN_ERROR("write userdef configuration failed\n");
    fclose(file);
}
