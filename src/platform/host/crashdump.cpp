// The crash dump on a plain Linux machine: a fatal signal leaves a backtrace in a file.
//
// The handler runs on a stack of its own, so that an overflown stack can be reported too, and calls
// only what may be called there: backtrace() has loaded its library beforehand.
#include "platform/crashdump.h"

#include <array>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <execinfo.h>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int FATAL_SIGNALS[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};
constexpr int MAX_FRAMES = 64;

std::array<char, 64> process_name;
std::array<char, 256> dump_path;
std::array<char, 65536> handler_stack;

void write_text(int fd, const char *text) {
    [[maybe_unused]] const ssize_t written = write(fd, text, strlen(text));
}

const char *signal_text(int sig) {
    switch (sig) {
    case SIGSEGV:
        return "SIGSEGV";
    case SIGBUS:
        return "SIGBUS";
    case SIGILL:
        return "SIGILL";
    case SIGFPE:
        return "SIGFPE";
    default:
        return "SIGABRT";
    }
}

void dump_and_die(int sig) {
    // The path lies in a directory where anybody may place a link, or a FIFO.
    const int fd = open(dump_path.data(),
                        O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
    if (fd >= 0) {
        void *frames[MAX_FRAMES];
        write_text(fd, process_name.data());
        write_text(fd, ": ");
        write_text(fd, signal_text(sig));
        write_text(fd, "\n");
        backtrace_symbols_fd(frames, backtrace(frames, MAX_FRAMES), fd);
        close(fd);
    }
    // SA_RESETHAND has restored the default action: the signal ends the process as it would have.
    raise(sig);
}

} // namespace

void crashdump_init(const char *name) {
    snprintf(process_name.data(), process_name.size(), "%s", name);
}

void crashdump_out_init(const char *path) {
    snprintf(dump_path.data(), dump_path.size(), "%s", path);
    void *frame[1];
    backtrace(frame, 1);

    stack_t stack = {};
    stack.ss_sp = handler_stack.data();
    stack.ss_size = handler_stack.size();
    sigaltstack(&stack, nullptr);
    struct sigaction action = {};
    action.sa_handler = dump_and_die;
    action.sa_flags = static_cast<int>(SA_ONSTACK | SA_RESETHAND);
    sigemptyset(&action.sa_mask);
    for (const int sig : FATAL_SIGNALS)
        sigaction(sig, &action, nullptr);
}
