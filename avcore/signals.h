// The signals that avcore answers, as something that its loop waits for.
#pragma once

#include "shared/unique_fd.h"

namespace avcore {

class signals {
public:
    // They are blocked from here on, in later threads, too. Throws std::runtime_error. A SIGHUP
    // that was ignored (nohup) stays so where it would end avcore.
    explicit signals(bool hangup_ends);

    enum class request {
        none,
        stop,   // SIGINT, SIGTERM
        hangup, // SIGHUP
        print,  // SIGUSR1
        agent,  // SIGUSR2: the URL-filtering agent is back
    };
    request take();
    int fd() const { return fd_.get(); }

private:
    unique_fd fd_;
};

} // namespace avcore
