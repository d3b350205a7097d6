#include "core/startup.h"

#include "control/files/configuration.h"
#include "core/base/flags.h"
#include "core/base/log.h"
#include "core/daemonize.h"
#include "core/dns/dns_cache.h"
#include "core/files/saved_files_folder.h"
#include "core/main_loop.h"
#include "core/options.h"
#include "core/pid_file.h"
#include "core/rights.h"
#include "core/signals.h"
#include "core/state/state.h"
#include "core/state/stats.h"
#include "core/text/text.h"
#include "platform/crashdump.h"
#include "platform/psm.h"
#include "roaming/roam.h"
#include "webfilter/web_file.h"
#include "wificalling/wificalling_file.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace {

void set_defaults(daemon_settings &settings) {
    settings.daemonize = 0;
    settings.debug = 0;
    copy_text(settings.conf_path, DEFAULT_CONF_PATH);
    copy_text(settings.sock_path, DEFAULT_SOCK_PATH);
    copy_text(settings.saved_files_folder, SAVED_FILES_FOLDER);
    copy_text(settings.video_stream_domain, JORN_VIDEO_STREAM_DOMAIN);
    settings.tm_engine_enabled = 0;
    settings.reserved = 0;
    settings.arc_enabled = 0;
}

void register_crash_dump() {
    char path[64];
    snprintf(path, sizeof path, "/tmp/%s_crash.txt", "jorn");
    crashdump_init("jorn");
    crashdump_out_init(path);
}

// Where a service's standard error is the journal, that gets its lines from syslog already.
bool is_in_journal() {
    const char *journal = getenv("JOURNAL_STREAM");
    struct stat status;
    if (journal == nullptr || fstat(STDERR_FILENO, &status) != 0)
        return false;
    char stream[64];
    snprintf(stream, sizeof stream, "%llu:%llu", static_cast<unsigned long long>(status.st_dev),
             static_cast<unsigned long long>(status.st_ino));
    return strcmp(journal, stream) == 0;
}

// The saved configurations in their order: the last empties the UTP tables.
constexpr void (*LOADERS[])() = {
    jorn_load_web_configurations,
    jorn_load_wificalling_configurations,
    jorn_load_configurations,
};

// The steps that a platform or the files may draw out. An exit signal that came meanwhile ends them
// as it ends the loop: with the statistics and the clean-up.
void load_and_run(capture_context *capture_ctx) {
    for (const auto load : LOADERS) {
        if (!exit_requested())
            load();
    }
    if (exit_requested())
        jorn_signal_handle(capture_ctx);
    else
        jorn_main_loop(capture_ctx);
}

// What the steps of the initialisation work on.
struct initialisation {
    int options; // what reading them returned
    capture_context *capture_ctx;
};

// An unknown option doesn't stop the start.
int check_options(const initialisation &init) {
    return init.options == OPTIONS_ERR_TOO_LONG ? init.options : 0;
}

int open_bus(const initialisation &init) {
    return jorn_init_roam_cfg(init.options);
}

void close_bus(const initialisation &) {
    close_roaming_bus();
}

int open_dns_cache(const initialisation &) {
    return jorn_dnscache_hash_table_init();
}

void close_dns_cache(const initialisation &) {
    dns_cache_free();
}

int open_capture(const initialisation &init) {
    return jorn_capture_open(init.capture_ctx);
}

void undo_capture(const initialisation &init) {
    close_capture(init.capture_ctx);
}

int choose_processor(const initialisation &init) {
    return jorn_set_pkt_processor(init.capture_ctx);
}

struct fallible_step {
    int (*run)(const initialisation &);   // 0, or the negative code that ends the start
    void (*undo)(const initialisation &); // of a whole step and of one that failed half-way
};

constexpr void (*NOTHING_TO_UNDO)(const initialisation &) = nullptr;

// In their order; a step is run when all before it succeeded.
constexpr fallible_step STEPS[] = {
    {check_options, NOTHING_TO_UNDO},    {open_bus, close_bus},
    {open_dns_cache, close_dns_cache},   {open_capture, undo_capture},
    {choose_processor, NOTHING_TO_UNDO},
};

// Returns 0, or the code of the step that failed, when what was done is undone.
int run_steps(const initialisation &init) {
    for (size_t i = 0; i < std::size(STEPS); ++i) {
        const int result = STEPS[i].run(init);
        if (result == 0)
            continue;
        for (size_t done = i + 1; done-- > 0;) {
            if (STEPS[done].undo != NOTHING_TO_UNDO)
                STEPS[done].undo(init);
        }
        return result;
    }
    return 0;
}

} // namespace

int jorn_init(int argc, char *argv[], capture_context *capture_ctx) {
    initialising = 1;
    jorn_settings = {};
    jorn_state = {};
    *capture_ctx = {};
    openlog("jorn", is_in_journal() ? LOG_PID : LOG_PID | LOG_PERROR, LOG_DAEMON);
    set_defaults(jorn_settings);

    const int result = run_steps({jorn_parse_options(argc, argv), capture_ctx});
    if (result == 0)
        JORN_DEBUG("JORn %s %d\n", "hello world", 100);
    initialising = 0;
    return result;
}

int run_daemon(int argc, char *argv[]) {
    if (answer_about_program(argc, argv))
        return EXIT_SUCCESS;
    if (another_instance_runs()) {
        puts("jorn is existing!");
        return EXIT_SUCCESS;
    }
    if (psm_jor_mem_support() != 0) {
        puts("The memory size is smaller than 100MB");
        return EXIT_SUCCESS;
    }

    install_exit_handlers();
    capture_context capture_ctx;
    if (jorn_init(argc, argv, &capture_ctx) != 0)
        return EXIT_FAILURE;
    if (jorn_settings.daemonize != 0)
        jorn_daemonlize();
    write_pid_file(PID_FILE_PATH);
    register_crash_dump();
    give_up_rights();
    load_and_run(&capture_ctx);
    jorn_print_stats();
    jorn_exit_clean(&capture_ctx);
    return EXIT_SUCCESS;
}
