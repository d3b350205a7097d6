// Whether a platform's libraries keep what src/platform/*.h says, as far as that can be asked
// without harm. Whoever makes them links this with them and runs it on the device:
//
//     cc -std=gnu11 -I src src/platform/platform_check.c -lpsm -lpsms -lwdlm -lcrashdump
//
// Each check is a process of its own: what crashes or hangs has failed, and the rest goes on.
// The flows, stations, interfaces and peers that are named don't exist, so that no client notices.
//
// A check passes or fails, or is unanswered: something in it returned an error, as it may, and what
// its answer would have shown isn't known. Exit status: 1 when a check failed, else 0.
#include "platform/crashdump.h"
#include "platform/psm.h"
#include "platform/psms.h"
#include "platform/wdlm.h"

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#define EXPECT(statement)                                                                          \
    do {                                                                                           \
        if (!(statement))                                                                          \
            fail(#statement, __LINE__);                                                            \
    } while (0)

enum { PATTERN = 0x5A, GUARD = 16, LONGEST_S = 10 };
enum { PASSED, FAILED, UNANSWERED, OUTCOMES }; // of a check, as its process's exit status

static const char HOST[] = "platform-check.example";
static const char *checked;
static char unanswered[512]; // of the check that runs

// For a client would feel them.
int (*volatile linked_and_not_called[])(void) = {
    psms_rflow_reset_app_policy,
    (int (*)(void))(void (*)(void))psms_av_set_tm_en,
    (int (*)(void))(void (*)(void))__wdlm_add_peer,
};

static void fail(const char *statement, int line) {
    printf("FAIL  %s: not so, line %d: %s\n", checked, line, statement);
    fflush(stdout);
    _exit(FAILED);
}

static void note(const char *question, const char *what, int value) {
    const size_t used = strlen(unanswered);
    if (strstr(unanswered, question) == NULL)
        snprintf(unanswered + used, sizeof unanswered - used, "%s%s %s %d", used == 0 ? "" : ", ",
                 question, what, value);
}

static int is_answer(const char *question, int result) {
    if (result != 0)
        note(question, "returned", result);
    return result == 0;
}

#define ANSWERS(question, ...) is_answer(#question, question(__VA_ARGS__))

// A buffer that shows who writes behind what he was given.
struct guarded {
    _Alignas(8) char bytes[sizeof(struct roam_message) + GUARD];
};

static void lay(struct guarded *buffer) {
    memset(buffer->bytes, PATTERN, sizeof buffer->bytes);
}

static void expect_within(const struct guarded *buffer, size_t size) {
    for (size_t i = size; i < sizeof buffer->bytes; ++i)
        EXPECT(buffer->bytes[i] == PATTERN);
}

static void expect_text(const struct guarded *buffer, size_t size) {
    expect_within(buffer, size);
    EXPECT(memchr(buffer->bytes, '\0', size) != NULL);
}

// The addresses are for documentation, the protocol for experiments.
static struct flow_key nobodys_key(void) {
    struct flow_key key;
    memset(&key, 0, sizeof key);
    memset(key.dst_mac, 0xFE, sizeof key.dst_mac);
    memset(key.src_mac, 0xFE, sizeof key.src_mac);
    key.ip_proto = 253;
    memcpy(&key.dst_ip_be, "\xC0\x00\x02\x01", sizeof key.dst_ip_be);
    memcpy(&key.src_ip_be, "\xC6\x33\x64\x01", sizeof key.src_ip_be);
    return key;
}

static void check_machine(void) {
    struct guarded text;
    EXPECT((psm_jor_mem_support() == 0) == (psm_jor_mem_support() == 0));
    EXPECT((psm_mem_support_tm() == 0) == (psm_mem_support_tm() == 0));
    for (size_t size = 64; size != 0; size /= 8) {
        lay(&text);
        if (ANSWERS(psm_sys_get_fw_version, text.bytes, size))
            expect_text(&text, size);
    }
    lay(&text);
    const int is_there = ANSWERS(psm_bsp_getMACBase, text.bytes);
    expect_text(&text, 18);
    EXPECT(strlen(text.bytes) == (is_there ? 17 : 0));
    for (int i = 0; text.bytes[i] != '\0'; ++i)
        EXPECT(strchr(i % 3 == 2 ? ":" : "0123456789ABCDEF", text.bytes[i]) != NULL);
}

static void check_store(void) {
    struct psm_xact *xact = NULL;
    if (!ANSWERS(psm_beginXact, &xact))
        return;
    int enable = PATTERN;
    const int result = psm_wlan_pgetAvcEn(xact, "nosuch0", &enable);
    EXPECT(enable == (result == 0 ? 0 : PATTERN));
    for (size_t size = 65; size != 0; size /= 8) {
        struct guarded text;
        lay(&text);
        if (ANSWERS(psm_webroot_server_pgetName, xact, text.bytes, size))
            expect_text(&text, size);
    }
    EXPECT(psm_cancelXact(&xact) == 0 && xact == NULL);
}

static void check_categories(void) {
    for (size_t id = 0; id < sizeof g_cat_map / sizeof g_cat_map[0]; ++id) {
        EXPECT(memchr(g_cat_map[id] + 1, '\0', sizeof g_cat_map[id] - 1) != NULL);
        EXPECT(g_cat_map[id][1] != '\0');
    }
    struct urlf_request request;
    memset(&request, 0, sizeof request);
    request.request_type = URLF_REQUEST_CATEGORY;
    request.flow_key = nobodys_key();
    memcpy(request.domain, HOST, sizeof HOST);
    request.domain_length = sizeof HOST - 1;
    struct guarded reply;
    struct urlf_answer answer;
    lay(&reply);
    const int result = psm_urlfilter_get_category(&request, (struct urlf_reply *)&reply);
    expect_within(&reply, result == 0 ? sizeof(struct urlf_reply) : 0);
    if (!is_answer("psm_urlfilter_get_category", result))
        return;
    memcpy(&answer, &reply, sizeof answer);
    if (answer.status == URLF_STATUS_NO_LIST || answer.status == URLF_STATUS_UNREACHABLE) {
        note("psm_urlfilter_get_category", "gave status", answer.status);
        return;
    }
    for (int i = 0; i <= answer.category_count && i < URLF_CATEGORIES; ++i)
        EXPECT(answer.categories[i] >= 0 && answer.categories[i] < 84);
}

static void check_address(void) {
    for (unsigned int size = 65; size != 0; size /= 8) {
        struct guarded name;
        uint32_t words[3];
        lay(&name);
        memset(words, PATTERN, sizeof words);
        const int result = psms_dnscache_get_dn_by_ip(nobodys_key().dst_ip_be, name.bytes, size,
                                                      &words[0], &words[1], &words[2]);
        expect_within(&name, size);
        if (!is_answer("psms_dnscache_get_dn_by_ip", result))
            continue;
        EXPECT(words[0] != 0x5A5A5A5A && words[1] != 0x5A5A5A5A && words[2] != 0x5A5A5A5A);
        if (words[1] != 0 && words[2] != 0)
            expect_text(&name, size);
    }
}

static void check_station(void) {
    struct roam_notify notify;
    struct guarded flows;
    int count = PATTERN;
    memset(&notify, 0, sizeof notify);
    memset(notify.sta_mac, 0xFE, sizeof notify.sta_mac);
    lay(&flows);
    const int result = psms_rflow_get_roam(&notify, (struct roam_flow *)&flows, &count);
    EXPECT(!is_answer("psms_rflow_get_roam", result) || count == 0);
    expect_within(&flows, ROAM_FLOWS_MAX * sizeof(struct roam_flow));
}

static void check_flow(void) {
    struct av_verdict record;
    memset(&record, 0, sizeof record);
    record.verdict = AV_VERDICT_ALLOW;
    record.flow_key = nobodys_key();
    record.default_policy = 1;
    record.policy_type = AV_POLICY_DEFAULT;
    memset(&record.qos, 0xFF, sizeof record.qos);
    const struct av_verdict before = record;
    ANSWERS(psms_wdl_ioctl, AV_IOCTL_SET_VERDICT, 0, sizeof record, &record);
    EXPECT(memcmp(&record, &before, sizeof record) == 0);
    ANSWERS(psms_rflow_set_app, &record.flow_key, &record.qos, "***", 0, 0, AV_VERDICT_WHITE_LIST,
            0, 2);
    ANSWERS(psm_log_syslog, 6, "platform_check: no format, 100%n %s");
}

static void check_interface(void) {
    const char name[] = "longer-than-an-interface-s-name-can-be";
    const uint32_t address_be = nobodys_key().dst_ip_be;
    EXPECT(psms_av_set_dev_av(name, 0) != 0);
    EXPECT(psms_av_set_dev_url(name, 0) != 0);
    EXPECT(psms_av_set_dev_wfc(name, 0) != 0);
    EXPECT(psms_dnsspoof_set_enable_for_safesearch(name, 0) != 0);
    EXPECT(psms_dnsspoof_add_dn_ip_map_for_safesearch(name, HOST, &address_be, 1, 0, 0, 1, 0) != 0);
    EXPECT(psms_dnsspoof_del_dn_ip_map_for_safesearch(name, HOST, 1, 0) != 0);
    psms_dnsspoof_del_dn_ip_map_for_safesearch(NULL, HOST, 2, 63); // of a UTP
}

static void on_message(void *bus_arg, const struct wdlm_message *message) {
    (void)bus_arg;
    EXPECT(strcmp(message->topic, "PlatformCheck") == 0);
}

static void check_bus(void) {
    static struct roam_message payload;
    EXPECT(wdlm_init(0) == 0);
    struct wdlm_bus *bus = wdlm_open(0, "platform_check");
    EXPECT(bus != NULL);
    struct wdlm_label *from = wdlm_create_slabel(0, "*", "PlatformCheck", 0);
    struct wdlm_label *to = wdlm_create_plabel(0, "AP.FE:FE:FE:FE:FE:FE", "PlatformCheck", 0);
    EXPECT(from != NULL && to != NULL);
    EXPECT(wdlm_sub(bus, from, on_message, NULL, 0) == 0);
    const int fd = wdlm_fd(bus);
    EXPECT(fd == -1 || fcntl(fd, F_GETFD) >= 0);
    if (fd == -1)
        note("wdlm_fd", "returned", fd);
    EXPECT(wdlm_receive(bus) != 0); // nothing was sent
    wdlm_pub(bus, to, &payload, sizeof payload);
    wdlm_destroy_plabel(to);
    wdlm_destroy_slabel(from);
    wdlm_close(bus);
    wdlm_cleanup();
}

static void check_crash_dump(void) {
    char path[] = "/tmp/platform_check.XXXXXX";
    struct stat info = {.st_size = 0};
    int status = 0;
    EXPECT(close(mkstemp(path)) == 0);
    const pid_t crashing = fork();
    if (crashing == 0) {
        setrlimit(RLIMIT_CORE, &(struct rlimit){0, 0});
        crashdump_init("platform_check");
        crashdump_out_init(path);
        raise(SIGSEGV);
        _exit(0);
    }
    waitpid(crashing, &status, 0);
    stat(path, &info);
    unlink(path);
    EXPECT(WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV);
    EXPECT(info.st_size > 0);
}

static const struct check {
    const char *what;
    void (*run)(void);
} CHECKS[] = {
    {"memory, DPI engine, firmware, base MAC", check_machine},
    {"configuration store", check_store},
    {"web categories", check_categories},
    {"name of an address", check_address},
    {"flows of a station", check_station},
    {"verdict, and line for the log", check_flow},
    {"interface that can't be", check_interface},
    {"message bus", check_bus},
    {"crash dump", check_crash_dump},
};

static int outcome_of(const struct check *one) {
    int status = 0;
    checked = one->what;
    const pid_t child = fork();
    if (child == 0) {
        alarm(LONGEST_S);
        one->run();
        if (unanswered[0] == '\0')
            printf("pass  %s\n", checked);
        else
            printf("unanswered  %s: %s\n", checked, unanswered);
        fflush(stdout);
        _exit(unanswered[0] == '\0' ? PASSED : UNANSWERED);
    }
    waitpid(child, &status, 0);
    if (!WIFSIGNALED(status))
        return WEXITSTATUS(status);
    printf("FAIL  %s: %s\n", checked, strsignal(WTERMSIG(status)));
    fflush(stdout);
    return FAILED;
}

int main(void) {
    int count[OUTCOMES] = {0};
    for (size_t i = 0; i < sizeof CHECKS / sizeof CHECKS[0]; ++i)
        ++count[outcome_of(&CHECKS[i])];
    printf("%d failed, %d unanswered; linked, not called: %zu operations\n", count[FAILED],
           count[UNANSWERED], sizeof linked_and_not_called / sizeof linked_and_not_called[0]);
    return count[FAILED] != 0;
}
