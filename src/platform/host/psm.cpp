// The system manager's operations on a plain Linux machine: platform values, or what the machine
// itself says.
#include "platform/psm.h"

#include "platform/host/av_channel.h"
#include "platform/host/machine/base_mac.h"
#include "platform/host/platform_value.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/sysinfo.h>
#include <sys/utsname.h>

namespace {

constexpr uint64_t ENOUGH_MEMORY_BYTES = uint64_t{100} * 1024 * 1024;

} // namespace

int psm_jor_mem_support() {
    platform_value value;
    if (read_platform_value(AV_KEY_MEMORY, value))
        return strcmp(value, "0") == 0 ? 0 : 1;
    struct sysinfo memory = {};
    if (sysinfo(&memory) != 0)
        return 1;
    return uint64_t{memory.totalram} * memory.mem_unit >= ENOUGH_MEMORY_BYTES ? 0 : 1;
}

int psm_mem_support_tm() {
    platform_value value;
    return read_platform_value(AV_KEY_DPI_ENGINE, value) && strcmp(value, "1") == 0 ? 1 : 0;
}

int psm_bsp_getMACBase(char *text) {
    text[0] = '\0';
    platform_value value;
    if (read_platform_value(AV_KEY_BASE_MAC, value)) {
        snprintf(text, MAC_TEXT_SIZE, "%.17s", value);
        return 0;
    }
    char found[MAC_TEXT_SIZE];
    if (!machine_base_mac(found))
        return -1;
    memcpy(text, found, sizeof found);
    return 0;
}

// There is no store to open: a transaction is the channel's being there, so that nobody asks a
// platform that is absent for value after value.
int psm_beginXact(psm_xact **xact) {
    *xact = nullptr;
    return av_connected() ? 0 : -1;
}

int psm_cancelXact(psm_xact **xact) {
    *xact = nullptr;
    return 0;
}

int psm_wlan_pgetAvcEn(psm_xact *, const char *ifname, int *enable) {
    char key[sizeof(av_value_question)];
    platform_value value;
    snprintf(key, sizeof key, "%s%s", AV_KEY_VISIBILITY, ifname);
    *enable = read_platform_value(key, value) ? static_cast<int>(strtol(value, nullptr, 10)) : 0;
    return 0;
}

int psm_webroot_server_pgetName(psm_xact *, char *text, size_t size) {
    platform_value value;
    if (!read_platform_value(AV_KEY_URL_SERVER, value))
        return -1;
    snprintf(text, size, "%s", value);
    return 0;
}

int psm_urlfilter_get_category(const urlf_request *request, urlf_reply *reply) {
    urlf_reply category = {};
    const av_bytes parts[] = {av_part(*request)};
    int32_t rc = 0;
    if (!av_ask(av_op::urlfilter_get_category, parts, rc,
                std::as_writable_bytes(std::span(&category, 1))))
        return -1;
    if (rc == 0)
        *reply = category;
    return rc;
}

int psm_sys_get_fw_version(char *text, size_t size) {
    platform_value value;
    if (read_platform_value(AV_KEY_FIRMWARE, value)) {
        snprintf(text, size, "%s", value);
        return 0;
    }
    utsname kernel = {};
    const bool known = uname(&kernel) == 0;
    snprintf(text, size, "%s", known ? kernel.release : "");
    return known ? 0 : -1;
}

int psm_log_syslog(int level, const char *line) {
    const av_syslog_head head = {level};
    const av_bytes parts[] = {av_part(head), std::as_bytes(std::span(line, strlen(line)))};
    return av_send(av_op::log_syslog, parts);
}
