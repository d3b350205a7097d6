#include "core/base/event_channel.h"

#include "core/base/log.h"
#include "core/text/text.h"
#include "platform/psm.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr uint32_t EVENT_MESSAGE_TYPE = 100;

int event_socket = -1;

void open_event_socket() {
    event_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (event_socket < 0)
        JORN_ERROR_AS("init_JORNYRTEvent", "Unable to open yrt log!\n");
}

} // namespace

void jorn_format_event(char (&line)[EVENT_LINE_SIZE], int priority, time_t now, int number,
                       const char *name, std::string_view key_values) {
    // "Tue Nov 24 21:48:59 2026\n" without the day of the week and the year.
    char calendar[32] = "Thu Jan  1 00:00:00 1970\n";
    ctime_r(&now, calendar);
    const std::string_view stamp(calendar + 4, 15);
    char base_mac[18] = {};
    psm_bsp_getMACBase(base_mac);
    base_mac[sizeof base_mac - 1] = '\0';

    snprintf(line, sizeof line, "<%d>%.*s: @@%d,%s,\"apMac\"=\"%s\"", priority,
             static_cast<int>(stamp.size()), stamp.data(), number, name, base_mac);
    const size_t used = strlen(line);
    snprintf(line + used, sizeof line - used, ",%.*s", static_cast<int>(key_values.size()),
             key_values.data());
}

int jorn_yrtevent(const char *text) {
    if (event_socket < 0)
        open_event_socket();
    if (text == nullptr || event_socket <= 0 || strstr(text, ": @@") == nullptr)
        return 0;

    char datagram[sizeof EVENT_MESSAGE_TYPE + EVENT_LINE_SIZE];
    const size_t text_size = strlen(text) + 1;
    sockaddr_un service = {};
    service.sun_family = AF_UNIX;
    memcpy(service.sun_path, EVENT_SERVICE_PATH, sizeof EVENT_SERVICE_PATH);
    static_assert(sizeof service == 110);

    if (text_size <= EVENT_LINE_SIZE) {
        memcpy(datagram, &EVENT_MESSAGE_TYPE, sizeof EVENT_MESSAGE_TYPE);
        memcpy(datagram + sizeof EVENT_MESSAGE_TYPE, text, text_size);
        if (sendto(event_socket, datagram, sizeof EVENT_MESSAGE_TYPE + text_size,
                   MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&service),
                   sizeof service) >= 0)
            return 1;
    }
    JORN_ERROR("Unable to send msg:'%s' to yrt log!\n", text);
    close(event_socket);
    event_socket = -1;
    return 0;
}
