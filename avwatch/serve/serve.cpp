#include "avwatch/serve/serve.h"

#include "avcore/base/loop.h"
#include "avcore/base/monotonic_clock.h"
#include "avwatch/base/complain.h"
#include "avwatch/base/failure.h"
#include "avwatch/serve/http_server.h"
#include "avwatch/serve/recorder.h"
#include "shared/unique_fd.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>
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

} // namespace

int serve(const history_settings &settings, const std::string &watch_socket) {
    signal(SIGPIPE, SIG_IGN);
    umask(027); // who uses what is not everybody's business
    const unique_fd signals = end_signals();
    recorder kept(settings, watch_socket);
    std::optional<http_server> http;
    if (!settings.http.empty()) {
        http.emplace(settings.http, [&kept] { return kept.metrics(); });
        if (!is_loopback(settings.http))
            complain("whoever reaches " + settings.http + " can read /metrics");
    }
    bool goes_on = true;
    avcore::loop loop;
    loop.add(
        {.descriptor = [&] { return signals.get(); }, .serve = [&](int64_t) { goes_on = false; }});
    loop.add({.descriptor = [&] { return kept.descriptor(); },
              .due_ms = [&](int64_t now_ms) { return kept.has_more() ? now_ms : NEVER_MS; },
              .serve = [&](int64_t) { kept.listen(); }});
    if (http)
        loop.add({.descriptor = [&] { return http->descriptor(); },
                  .due_ms = [&](int64_t now_ms) { return http->due_ms(now_ms); },
                  .serve = [&](int64_t now_ms) { http->serve(now_ms); }});
    loop.add({.due_ms = [&](int64_t) { return kept.due_ms(); },
              .serve = [&](int64_t now_ms) { kept.serve(now_ms); }});
    while (goes_on)
        loop.wait_and_serve(avcore::monotonic_ms());
    kept.finish();
    return STATUS_DONE;
}

} // namespace avwatch
