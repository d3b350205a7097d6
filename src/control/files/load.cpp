#include "control/files/configuration.h"
#include "control/files/dpi_engine.h"
#include "control/files/dpi_rules.h"
#include "control/tables/arc_tables.h"
#include "core/base/flags.h"
#include "core/base/log.h"
#include "core/files/saved_file.h"
#include "core/state/state.h"
#include "platform/psm.h"
#include "platform/psms.h"
#include "userapps/port_service.h"

namespace {

constexpr int WLANS_MAX = 64;
constexpr char LOADER[] = "jorn_load_configurations";

} // namespace

void jorn_load_configurations() {
    JORN_DEBUG("JORN loading configuration...\n");
    jorn_process_utp_flush();
    jorn_process_arc_policy_flush();
    if (!restore_configuration())
        return;
    jorn_parse_port_service_conf_file(saved_file_path(PORT_SERVICE_FILE).c_str(),
                                      &jorn_state.port_apps);
    enable_visibility();
    if (!exit_requested() && enable_dpi_engine() && !exit_requested())
        jorn_load_dpi_rules();
}

void enable_visibility() {
    psm_xact *xact = nullptr;
    if (psm_beginXact(&xact) != 0)
        return;
    for (int i = 0; i < WLANS_MAX && !exit_requested(); ++i) {
        char name[17];
        int enable = 0;
        snprintf(name, sizeof name, "wlan%d", i);
        psm_wlan_pgetAvcEn(xact, name, &enable);
        if (enable == 0 || psm_jor_mem_support() != 0)
            continue;
        JORN_DEBUG_AS(LOADER, "set av_enable on interface: %s", name);
        psms_av_set_dev_av(name, enable);
    }
    psm_cancelXact(&xact);
}
