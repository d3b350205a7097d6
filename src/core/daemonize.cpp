#include "core/daemonize.h"

#include "core/base/flags.h"
#include "core/base/log.h"
#include "core/signals.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>

namespace {

[[noreturn]] void leave_when_child_is_up(pid_t child) {
    JORN_DEBUG_AS("jorn_daemonlize", "in the parent process..\n");
    do {
        JORN_DEBUG_AS("jorn_daemonlize", "Parent waiting \n");
        sleep(1);
        log_handled_signals();
    } while (parent_waiting != 0);

    int status = 0;
    if (waitpid(child, &status, WNOHANG) == child) {
        if (WIFSIGNALED(status))
            JORN_DEBUG_AS("jorn_daemonlize", "the child terminated by signal\n");
        if (WTERMSIG(status) == 0)
            JORN_DEBUG_AS("jorn_daemonlize", "the child terminated normally\n");
    }
    JORN_DEBUG_AS("jorn_daemonlize", "parent process exit now\n");
    exit(EXIT_SUCCESS);
}

void leave_terminal() {
    setsid();
    // A stream that can't be reopened stays closed; there is nobody left to tell.
    [[maybe_unused]] const FILE *out = freopen("/dev/null", "w", stdout);
    [[maybe_unused]] const FILE *err = freopen("/dev/null", "w", stderr);
    [[maybe_unused]] const FILE *in = freopen("/dev/null", "r", stdin);
    [[maybe_unused]] const int first = dup(STDIN_FILENO);
    [[maybe_unused]] const int second = dup(STDIN_FILENO);
}

} // namespace

int jorn_daemonlize() {
    JORN_DEBUG("JORN entering the daemon\n");
    if (getppid() != 1) {
        parent_waiting = 1;
        install_child_handler();
        JORN_DEBUG("fork a child process\n");
        const pid_t child = fork();
        if (child > 0)
            leave_when_child_is_up(child);
        if (child < 0) {
            JORN_ERROR("fork error \n");
            exit(EXIT_FAILURE);
        }
    }
    leave_terminal();
    jorn_child_notify_parent(SIGCHLD);
    return 0;
}

void jorn_child_notify_parent(int sig) {
    const pid_t parent = getppid();
    if (kill(parent, sig) != 0)
        JORN_ERRNO(errno, "Daemon initialized, failed to signal parent pid: %d\n", parent);
    else
        JORN_DEBUG("child send signal (%d) to parent (%d)\n", parent, sig);
}
