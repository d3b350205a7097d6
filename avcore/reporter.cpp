#include "avcore/reporter.h"

#include <iostream>
#include <unistd.h>

namespace avcore {

void reporter::begin() {
    around_.progress.clear();
    waits_ = false;
    job_ = std::make_unique<report_job>(
        row_writer(around_.flows, around_.behind, around_.json),
        [this] { return around_.json ? "" : '\n' + around_.totals(); }, STDOUT_FILENO);
}

void reporter::leave_unfinished() {
    end("the report is left unfinished");
}

loop::row reporter::row() {
    return {.descriptor = [this] { return job_ && waits_ ? STDOUT_FILENO : -1; },
            .due_ms = [this](int64_t now_ms) { return job_ && !waits_ ? now_ms : NEVER_MS; },
            .serve = [this](int64_t) { go_on(); },
            .events = POLLOUT};
}

void reporter::go_on() {
    if (!job_) // it was left in this very turn
        return;
    report_job::state now = report_job::state::goes_on;
    around_.take_time([&] { now = job_->go_on(); });
    waits_ = now == report_job::state::waits;
    if (now == report_job::state::written)
        end(nullptr);
    else if (now == report_job::state::failed)
        end("the report can't be written");
}

void reporter::end(const char *failure) {
    job_.reset();
    around_.progress.clear();
    if (around_.json)
        std::cerr << around_.totals();
    if (failure != nullptr)
        around_.say(failure);
    all_written_ = all_written_ && failure == nullptr;
}

} // namespace avcore
