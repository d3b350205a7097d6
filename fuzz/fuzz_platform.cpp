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

int psm_mem_support_tm() { return 1; }
int psms_av_set_tm_en(int) { return 0; }

// The address chooses the answer: an error, a miss or a name, which may be empty or hold anything.
int psms_dnscache_get_dn_by_ip(uint32_t address_be, char *name, unsigned size, uint32_t *w1,
                               uint32_t *w2, uint32_t *w3) {
    const auto choice = static_cast<uint8_t>(address_be >> 24);
    if (choice == 0xFF)
        return -1;
    *w1 = *w2 = *w3 = choice & 1;
    memset(name, choice, choice % size);
    name[choice % size] = '\0';
    return 0;
}

int psms_rflow_reset_app_policy() {
    return 0;
}

void crashdump_init(const char *) {}
void crashdump_out_init(const char *) {}
