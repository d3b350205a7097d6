#include "webfilter/web_event.h"

#include "core/base/event_channel.h"
#include "core/base/log.h"
#include "core/text/text.h"
#include "platform/psm.h"

#include <cstdio>
#include <ctime>

namespace {

using server_name = char[65];

// Reads the server's name in a transaction of its own.
bool read_server_name(server_name &name) {
    constexpr char FUNCTION[] = "jorn_send_web_event";
    psm_xact *xact = nullptr;
    if (psm_beginXact(&xact) != 0) {
        JORN_ERROR_AS(FUNCTION, "Failed to begin RPM key, Not able to send ALARM\n");
        return false;
    }
    const int result = psm_webroot_server_pgetName(xact, name, sizeof name);
    psm_cancelXact(&xact);
    terminate(name);
    if (result != 0)
        JORN_ERROR_AS(FUNCTION,
                      "Not able to send ALARM, Failed to get Webroot server name  %s ret val %d\n",
                      printable_text(name).c_str(), result);
    return result == 0;
}

} // namespace

void jorn_send_web_event(int number, const char *name) {
    server_name server = {};
    if (!read_server_name(server))
        return;
    char server_url[128];
    snprintf(server_url, sizeof server_url, "\"serverUrl\"=\"%.64s\" ",
             printable_text(server).c_str());
    JORN_DEBUG("ALARM string %s\n", server_url);
    char line[EVENT_LINE_SIZE];
    jorn_format_event(line, JORN_LOG_INFO, time(nullptr), number, name, server_url);
    jorn_yrtevent(line);
}
