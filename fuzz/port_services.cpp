// The port-service file: any content is read without harm, the list keeps its bounds, and the
// settled look-up finds for each entry's port what a walk of the list finds.
#include "core/base/settings.h"
#include "core/state/state.h"
#include "userapps/port_service.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <sys/mman.h>
#include <syslog.h>
#include <unistd.h>

namespace {

void set_up() {
    jorn_settings.daemonize = 1; // lines are formatted, then go nowhere
    setlogmask(LOG_MASK(LOG_EMERG));
}

void read_list(const uint8_t *data, size_t size) {
    const int fd = memfd_create("port-services", MFD_CLOEXEC);
    if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size))
        abort();
    char path[32];
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    jorn_parse_port_service_conf_file(path, &jorn_state.port_apps);
    close(fd);
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
    static const int ready = (set_up(), 1);
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
