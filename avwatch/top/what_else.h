// What else would decide about a flow, asked as `avwatch why` asks it: in a process of its own, for
// an answer may take seconds, and the daemon's code, which decides, has one state in a process.
#pragma once

#include "avwatch/client/records.h"
#include "avwatch/settings/settings.h"
#include "avwatch/top/explanation.h"
#include "shared/unique_fd.h"

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace avwatch {

class what_else_asker {
public:
    explicit what_else_asker(const invocation &around) : around_(around) {}
    ~what_else_asker() { stop(); }
    what_else_asker(const what_else_asker &) = delete;
    what_else_asker &operator=(const what_else_asker &) = delete;

    // About one as `present` has it, in place of a question that has no answer yet. False: it can't
    // be asked now.
    bool ask(const flow_record &flow);
    int descriptor() const { return answer_.get(); } // -1 while nothing is asked
    const std::string &flow_id() const { return flow_id_; }
    // Once it is whole; then nothing is asked any more.
    std::optional<std::vector<explained_line>> answer();

private:
    void stop();

    const invocation around_;
    std::string flow_id_;
    pid_t process_ = -1;
    unique_fd answer_; // its end, of a pipe
    std::string said_;
};

} // namespace avwatch
