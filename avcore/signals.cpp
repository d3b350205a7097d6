#include "avcore/signals.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <string>
#include <sys/signalfd.h>

namespace avcore {

signals::signals(bool hangup_ends) {
    // A reader of the report who has left is an error like a full disk.
    signal(SIGPIPE, SIG_IGN);
    sigset_t answered;
    sigemptyset(&answered);
    for (const int number : {SIGINT, SIGTERM, SIGUSR1, SIGUSR2})
        sigaddset(&answered, number);
    struct sigaction hangup = {};
    if (sigaction(SIGHUP, nullptr, &hangup) == 0 && (hangup.sa_handler != SIG_IGN || !hangup_ends))
        sigaddset(&answered, SIGHUP);
    sigprocmask(SIG_BLOCK, &answered, nullptr);
    fd_ = unique_fd(signalfd(-1, &answered, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!fd_.valid())
        throw std::runtime_error(std::string("signals: ") + strerror(errno));
}

signals::request signals::take() {
    signalfd_siginfo signal = {};
    if (read(fd_.get(), &signal, sizeof signal) <= 0)
        return request::none;
    switch (signal.ssi_signo) {
    case SIGUSR1:
        return request::print;
    case SIGUSR2:
        return request::agent;
    case SIGHUP:
        return request::hangup;
    default:
        return request::stop;
    }
}

} // namespace avcore
