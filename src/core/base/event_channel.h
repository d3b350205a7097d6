// The channel to the controller's event service: event lines as datagrams to a local socket.
//
// The descriptor opens with the first event and is opened anew after a failed send. Sending never
// blocks: a queue that is full is a failed send, and the event is lost.
#pragma once

#include <cstddef>
#include <ctime>
#include <string_view>

inline constexpr char EVENT_SERVICE_PATH[] = "/tmp/cub_uds";
inline constexpr size_t EVENT_LINE_SIZE = 1024; // a line is at most 1,023 characters

// Writes an event line into `line`:
//   <PRIORITY>MMM DD HH:MM:SS: @@NUMBER,NAME,"apMac"="BASE MAC",KEY-VALUES
// `priority` is a syslog priority number, the time stamp is local time, the key-value text is cut
// where the line is full.
void jorn_format_event(char (&line)[EVENT_LINE_SIZE], int priority, time_t now, int number,
                       const char *name, std::string_view key_values);

// Sends one event line: a 32-bit word 100 in host byte order, the text and its NUL.
// Returns 1 when it was sent, 0 when it was not: no socket, a text that is missing, is longer than
// an event line or holds no ": @@", or a service that is absent or doesn't keep up.
int jorn_yrtevent(const char *text);
