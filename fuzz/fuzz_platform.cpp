// The platform of the fuzz targets: answers at once, keeps nothing, and checks what it is handed.
#include "platform/crashdump.h"
#include "platform/psm.h"
#include "platform/psms.h"

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

int psms_rflow_reset_app_policy() {
    return 0;
}

void crashdump_init(const char *) {}
void crashdump_out_init(const char *) {}
