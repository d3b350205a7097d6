#include "bench_platform.h"

#include "platform/crashdump.h"
#include "platform/psm.h"
#include "platform/psms.h"

#include <cstring>

uint32_t bench_last_verdict;
uint64_t bench_verdicts;

int psm_jor_mem_support() {
    return 0;
}

int psm_bsp_getMACBase(char *text) {
    strcpy(text, "00:1A:2B:3C:4D:5E");
    return 0;
}

int psm_log_syslog(int, const char *) {
    return 0;
}

int psms_wdl_ioctl(int, int, unsigned int, void *record) {
    memcpy(&bench_last_verdict, record, sizeof bench_last_verdict);
    ++bench_verdicts;
    return 0;
}

int psms_rflow_reset_app_policy() {
    return 0;
}

void crashdump_init(const char *) {}

void crashdump_out_init(const char *) {}
