// The alarms about the URL-filtering server.
#pragma once

inline constexpr int WEB_EVENT_UNREACHABLE = 8003;
inline constexpr int WEB_EVENT_REACHABLE = 8004;

// Sends one alarm with the server's name to the controller's event service. One that can't be built
// is dropped with an error in the log.
void jorn_send_web_event(int number, const char *name);
