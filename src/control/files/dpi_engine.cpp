#include "control/files/dpi_engine.h"

#include "core/base/log.h"
#include "platform/psm.h"
#include "platform/psms.h"

bool enable_dpi_engine() {
    if (psm_mem_support_tm() == 0)
        return false;
    jorn_settings.tm_engine_enabled = 1;
    psms_av_set_tm_en(1);
    JORN_DEBUG_AS("jorn_load_configurations", "Loading TM's engine...\n");
    return true;
}
