#include "bench_platform.h"

#include "platform/crashdump.h"
#include "platform/psm.h"
#include "platform/psms.h"

#include <cstring>

const char *(*bench_name_of)(uint32_t address_be);
uint32_t bench_last_verdict;
uint64_t bench_verdicts;
urlf_answer bench_category_answer;

int psm_jor_mem_support() {
    return 0;
}

int psm_mem_support_tm() {
    return 0;
}

int psm_bsp_getMACBase(char *text) {
    strcpy(text, "00:1A:2B:3C:4D:5E");
    return 0;
}

int psm_beginXact(psm_xact **) {
    return -1;
}

int psm_cancelXact(psm_xact **) {
    return 0;
}

int psm_webroot_server_pgetName(psm_xact *, char *, size_t) {
    return -1;
}

int psm_urlfilter_get_category(const void *, void *reply) {
    memcpy(reply, &bench_category_answer, sizeof bench_category_answer);
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

int psms_dnscache_get_dn_by_ip(uint32_t address_be, char *name, unsigned int size, uint32_t *word1,
                               uint32_t *word2, uint32_t *word3) {
    const char *known = bench_name_of != nullptr ? bench_name_of(address_be) : nullptr;
    *word1 = *word2 = *word3 = known != nullptr ? 1 : 0;
    if (known != nullptr && size > 0) {
        const size_t length = strnlen(known, size - 1);
        memcpy(name, known, length);
        name[length] = '\0';
    }
    return 0;
}

int psms_av_set_tm_en(int) {
    return 0;
}

int psms_rflow_reset_app_policy() {
    return 0;
}

int psms_av_set_dev_url(const char *, int) {
    return 0;
}

int psms_rflow_set_app(const void *, const void *, const char *, int, uint16_t, uint32_t, int,
                       int) {
    return 0;
}

int psms_dnsspoof_del_dn_ip_map_for_safesearch(const char *, const char *, int, uint32_t) {
    return 0;
}

int psms_dnsspoof_add_dn_ip_map_for_safesearch(const char *, const char *, const uint32_t *, int,
                                               int, int, int, uint32_t) {
    return 0;
}

int psms_dnsspoof_set_enable_for_safesearch(const char *, int) {
    return 0;
}

void crashdump_init(const char *) {}

void crashdump_out_init(const char *) {}
