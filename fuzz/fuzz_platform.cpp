// The platform of the fuzz targets: answers at once, keeps nothing, and checks what it is handed.
#include "platform/crashdump.h"
#include "platform/psm.h"
#include "platform/psms.h"
#include "platform/wdlm.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

// Reads every byte, so that the sanitizers see what the daemon hands over.
void read_all(const void *bytes, size_t size) {
    for (size_t i = 0; i < size; ++i)
        (void)static_cast<const volatile uint8_t *>(bytes)[i];
}

} // namespace

int psm_jor_mem_support() {
    return 0;
}

int psm_mem_support_tm() {
    return 1;
}

int psm_bsp_getMACBase(char *text) {
    strcpy(text, "00:1A:2B:3C:4D:5E");
    return 0;
}

int psm_beginXact(psm_xact **xact) {
    *xact = nullptr;
    return 0;
}

int psm_cancelXact(psm_xact **) {
    return 0;
}

// No server: no alarm leaves the machine.
int psm_webroot_server_pgetName(psm_xact *, char *, size_t) {
    return -1;
}

// The domain decides, letter by letter: whether there is an answer, its status, five categories and
// how many of them count.
int psm_urlfilter_get_category(const void *request, void *reply) {
    read_all(request, 184);
    char domain[64];
    memcpy(domain, static_cast<const char *>(request) + 120, sizeof domain);
    if (memchr(domain, '\0', sizeof domain) == nullptr)
        abort();
    int32_t words[8];
    for (size_t i = 0; i < 8; ++i)
        words[i] = domain[i + 1] == 'Z'   ? INT32_MAX
                   : domain[i + 1] == 'Y' ? INT32_MIN
                                          : domain[i + 1] - 'a';
    memset(reply, domain[9], 148);
    memcpy(reply, words, sizeof words);
    return domain[0] == 'n' ? -1 : domain[0] == 'p' ? 1 : 0;
}

int psm_log_syslog(int, const char *line) {
    read_all(line, strlen(line));
    return 0;
}

int psms_wdl_ioctl(int, int, unsigned int length, void *record) {
    if (length != 232)
        abort();
    read_all(record, length);
    return 0;
}

// The address decides: an error, no name, or a name of every length and any bytes, its end unmarked
// when it fills the buffer.
int psms_dnscache_get_dn_by_ip(uint32_t address_be, char *name, unsigned int size, uint32_t *word1,
                               uint32_t *word2, uint32_t *word3) {
    uint8_t octets[4];
    memcpy(octets, &address_be, sizeof octets);
    const unsigned length = octets[3] < size ? octets[3] : size;
    memset(name, 0, size);
    memset(name, octets[2], length);
    *word1 = 0;
    *word2 = octets[1] & 1u;
    *word3 = octets[1] & 2u;
    return octets[1] == 0xFF ? -1 : 0;
}

int psms_av_set_dev_wfc(const char *ifname, int) {
    read_all(ifname, strlen(ifname) + 1);
    return 0;
}

int psms_av_set_tm_en(int) {
    return 0;
}

int psms_av_set_dev_url(const char *, int) {
    return 0;
}

int psms_rflow_set_app(const void *flow_key, const void *action, const char *name, int, uint16_t,
                       uint32_t, int, int) {
    read_all(flow_key, 60);
    read_all(action, 16);
    read_all(name, strlen(name));
    return 0;
}

int psms_dnsspoof_del_dn_ip_map_for_safesearch(const char *ifname, const char *host, int,
                                               uint32_t) {
    read_all(host, strlen(host));
    return ifname != nullptr ? static_cast<int>(strlen(ifname)) : 0;
}

int psms_dnsspoof_add_dn_ip_map_for_safesearch(const char *ifname, const char *host,
                                               const uint32_t *address_be, int, int, int, int,
                                               uint32_t) {
    read_all(host, strlen(host));
    read_all(address_be, sizeof *address_be);
    return ifname != nullptr ? static_cast<int>(strlen(ifname)) : 0;
}

int psms_dnsspoof_set_enable_for_safesearch(const char *ifname, int) {
    return static_cast<int>(strlen(ifname));
}

int psms_rflow_reset_app_policy() {
    return 0;
}

void crashdump_init(const char *) {}
void crashdump_out_init(const char *) {}

// The message bus: nobody is there, and nothing is asked of it without a start-up.
int psms_rflow_get_roam(const void *, void *, int *) {
    return -1;
}
int wdlm_init(int) {
    return 0;
}
void wdlm_cleanup() {}
wdlm_bus *wdlm_open(int, const char *) {
    return nullptr;
}
void wdlm_close(wdlm_bus *) {}
wdlm_label *wdlm_create_slabel(int, const char *, const char *, int) {
    return nullptr;
}
void wdlm_destroy_slabel(wdlm_label *) {}
wdlm_label *wdlm_create_plabel(int, const char *, const char *, int) {
    return nullptr;
}
void wdlm_destroy_plabel(wdlm_label *) {}
int wdlm_sub(wdlm_bus *, wdlm_label *, wdlm_callback, void *, int) {
    return -1;
}
int __wdlm_add_peer(const char *, int, const char *, const char *) {
    return -1;
}
int wdlm_pub(wdlm_bus *, wdlm_label *, const void *, size_t) {
    return -1;
}
int wdlm_fd(wdlm_bus *) {
    return -1;
}
int wdlm_receive(wdlm_bus *) {
    return -1;
}
