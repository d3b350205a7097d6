// The port-service file: any content is read without harm, the list keeps its bounds, and the
// settled look-up finds for each entry's port what a walk of the list finds.
#include "support/fresh_state.h"
#include "support/memory_file.h"
#include "userapps/port_service.h"
#include "userapps/walk.h"

#include <cstdlib>
#include <cstring>
#include <netinet/in.h>

namespace {

void read_list(const uint8_t *data, size_t size) {
    const memory_file file({reinterpret_cast<const char *>(data), size});
    jorn_parse_port_service_conf_file(file.path(), &jorn_state.port_apps);
}

void check_entry(const port_app &entry) {
    if (entry.begin_port < 1 || entry.begin_port > 65534 || entry.end_port != entry.begin_port ||
        entry.tcp_flag + entry.udp_flag != 1 || strlen(entry.app_name) > 64)
        abort();
    pkt_ctx pkt = {};
    pkt.dst_port = static_cast<uint16_t>(entry.begin_port);
    pkt.src_port = static_cast<uint16_t>(entry.begin_port + 1);
    pkt.ip_proto = entry.tcp_flag != 0 ? IPPROTO_TCP : IPPROTO_UDP;
    if (find_port_app(pkt) == nullptr || find_port_app(pkt) != walk_port_apps(pkt))
        abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const int ready = (silence_log(), 1);
    (void)ready;
    jorn_settings.debug = 1;
    read_list(data, size);
    jorn_settings.debug = 0;
    uint32_t count = 0;
    for (const port_app *entry = jorn_state.port_apps.head; entry != nullptr; entry = entry->next) {
        check_entry(*entry);
        ++count;
    }
    if (count != jorn_state.port_apps.count || count > PORT_APPS_MAX)
        abort();
    port_app_list_clear(&jorn_state.port_apps);
    return 0;
}
