#include "avwatch/serve/serve.h"

#include "avcore/base/loop.h"
#include "avcore/base/monotonic_clock.h"
#include "avwatch/base/complain.h"
#include "avwatch/base/failure.h"
#include "avwatch/export/exports.h"
#include "avwatch/page/page.h"
#include "avwatch/page/tickets.h"
#include "avwatch/present/present.h"
#include "avwatch/present/watcher.h"
#include "avwatch/serve/http_server.h"
#include "avwatch/serve/recorder.h"
#include "shared/unique_fd.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <sys/signalfd.h>
#include <sys/stat.h>

namespace avwatch {
namespace {

using avcore::NEVER_MS;

unique_fd end_signals() {
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGTERM);
    sigprocmask(SIG_BLOCK, &ending, nullptr);
    unique_fd fd(signalfd(-1, &ending, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!fd.valid())
        throw refused(std::string("signals: ") + strerror(errno));
    return fd;
}

// Of an address that isn't loopback's.
std::string token_for(const http_settings &http) {
    if (is_loopback(http.address))
        return {};
    if (!http.is_encrypted())
        complain("what is asked and answered at " + http.address +
                 " goes in the clear, the token too: \"certificate\" and \"key\" in [http] "
                 "encrypt it");
    return read_or_make_token(http.token_file);
}

// What follows the present and shows it. The present is followed from the start, so that whoever
// looks sees the last minutes.
class shown_page {
public:
    shown_page(const settings &read, const std::string &watch_socket, const recorder &kept,
               bool utc)
        : now_(read.aliases, read.history.names, WATCH_EVERY_MS),
          watcher_(watch_socket, now_),
          page_({read.http.hosts, token_for(read.http), read.http.is_encrypted()},
                {now_, [this] { return watcher_.trouble(); }, [&kept] { return kept.metrics(); },
                 read.history.file, read.history.names, utc}),
          http_(read.http, [this](const page_request &asked) { return page_.answer(asked); }) {}

    void add_to(avcore::loop &loop) {
        loop.add(
            {.descriptor = [this] { return watcher_.descriptor(); },
             .due_ms = [this](int64_t now_ms) { return watcher_.has_more() ? now_ms : NEVER_MS; },
             .serve = [this](int64_t now_ms) { watcher_.listen(now_ms); }});
        loop.add({.due_ms = [this](int64_t) { return watcher_.due_ms(); },
                  .serve = [this](int64_t now_ms) { watcher_.serve(now_ms); }});
        loop.add({.descriptor = [this] { return http_.descriptor(); },
                  .due_ms = [this](int64_t now_ms) { return http_.due_ms(now_ms); },
                  .serve = [this](int64_t now_ms) { http_.serve(now_ms); }});
    }

private:
    present now_;
    watcher watcher_;
    page page_;
    http_server http_;
};

} // namespace

int serve(const settings &read, const std::string &watch_socket, bool utc) {
    signal(SIGPIPE, SIG_IGN);
    umask(027); // who uses what is not everybody's business
    const unique_fd signals = end_signals();
    exports others(read.exports);
    recorder kept(read.history, watch_socket, others);
    std::unique_ptr<shown_page> shown;
    if (!read.http.address.empty())
        shown = std::make_unique<shown_page>(read, watch_socket, kept, utc);
    bool goes_on = true;
    avcore::loop loop;
    loop.add(
        {.descriptor = [&] { return signals.get(); }, .serve = [&](int64_t) { goes_on = false; }});
    loop.add({.descriptor = [&] { return kept.descriptor(); },
              .due_ms = [&](int64_t now_ms) { return kept.has_more() ? now_ms : NEVER_MS; },
              .serve = [&](int64_t) { kept.listen(); }});
    if (shown)
        shown->add_to(loop);
    loop.add({.due_ms = [&](int64_t) { return kept.due_ms(); },
              .serve = [&](int64_t now_ms) { kept.serve(now_ms); }});
    others.add_to(loop);
    while (goes_on)
        loop.wait_and_serve(avcore::monotonic_ms());
    kept.finish();
    return STATUS_DONE;
}

} // namespace avwatch
