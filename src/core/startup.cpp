#include "core/startup.h"

#include "control/configuration.h"
#include "core/daemonize.h"
#include "core/dns_cache.h"
#include "core/flags.h"
#include "core/log.h"
#include "core/main_loop.h"
#include "core/options.h"
#include "core/pid_file.h"
#include "core/signals.h"
#include "core/stats.h"
#include "core/text.h"
#include "platform/crashdump.h"
#include "platform/psm.h"

#include <cstdio>
#include <cstdlib>
#include <syslog.h>

namespace {

void set_defaults(daemon_settings &settings) {
    settings.daemonize = 0;
    settings.debug = 0;
    copy_text(settings.conf_path, DEFAULT_CONF_PATH);
    copy_text(settings.sock_path, DEFAULT_SOCK_PATH);
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

// The steps that can fail, in their order.
int open_inputs(capture_context *capture_ctx) {
    if (const int result = jorn_dnscache_hash_table_init(); result != 0)
        return result;
    if (const int result = jorn_capture_open(capture_ctx); result != 0)
        return result;
    return jorn_set_pkt_processor(capture_ctx);
}

} // namespace

int jorn_init(int argc, char *argv[], capture_context *capture_ctx) {
    initialising = 1;
    jorn_state = {};
    *capture_ctx = {};
    openlog("jorn", LOG_PID | LOG_PERROR, LOG_DAEMON);
    set_defaults(jorn_state.settings);

    // An unknown option doesn't stop the start.
    const int options = jorn_parse_options(argc, argv);
    int result = options == OPTIONS_ERR_TOO_LONG ? options : 0;
    if (result == 0)
        result = open_inputs(capture_ctx);
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
    if (jorn_init(argc, argv, &capture_ctx) != 0) {
        if (capture_ctx.handle != nullptr)
            pcap_close(capture_ctx.handle);
        return EXIT_FAILURE;
    }
    if (jorn_state.settings.daemonize != 0)
        jorn_daemonlize();
    write_pid_file(PID_FILE_PATH);
    register_crash_dump();
    jorn_load_configurations();

    jorn_main_loop(&capture_ctx);
    jorn_print_stats();
    jorn_exit_clean(&capture_ctx);
    return EXIT_SUCCESS;
}
