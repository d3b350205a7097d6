// The message bus between access points, exported by the platform's library libwdlm.
//
// Declarations only, in plain C; psm.h says who supplies them. Peers are known by their names. None
// of the operations blocks. A message is a text topic, "RflowRoamInfo", and a payload of bytes that
// the library carries as it is: a roam_message (records.h), which has 16,900 bytes at most. A name
// and a topic have 64 characters at most.
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

struct wdlm_bus;   // a client's connection to the bus
struct wdlm_label; // whom a message comes from or goes to, and its topic

// A message as it was received. It stands for the time of the callback; its texts end with a NUL.
struct wdlm_message {
    const char *sender; // the peer's name
    const char *topic;
    const void *payload;
    size_t length; // of the payload
};

// Called from wdlm_receive for a message that a subscription asked for. `bus_arg` is the library's.
typedef void (*wdlm_callback)(void *bus_arg, const struct wdlm_message *message);

// Prepares the library. `arg` is 0, or -5 after a start with an option that the daemon doesn't
// know; `arg` and `arg2` of the others are 0, `arg` of wdlm_sub NULL. Returns 0, nonzero on
// failure.
int wdlm_init(int arg);
void wdlm_cleanup(void);

// Opens the bus under a client's name. Returns NULL on failure.
struct wdlm_bus *wdlm_open(int arg, const char *client);
void wdlm_close(struct wdlm_bus *bus);

// A label to subscribe with: messages of a topic from a sender, "*" for any. A label to publish
// with: messages of a topic to a peer. Both return NULL on failure.
struct wdlm_label *wdlm_create_slabel(int arg, const char *sender, const char *topic, int arg2);
void wdlm_destroy_slabel(struct wdlm_label *label);
struct wdlm_label *wdlm_create_plabel(int arg, const char *peer, const char *topic, int arg2);
void wdlm_destroy_plabel(struct wdlm_label *label);

// Subscribes: the callback hears of the label's messages as long as the bus is open. Returns 0,
// nonzero on failure.
int wdlm_sub(struct wdlm_bus *bus, struct wdlm_label *label, wdlm_callback callback, void *arg,
             int arg2);

// Says at which address, IPv4 or IPv6 as text, a peer is reached; another address replaces the old
// one. `function` and `line` name the caller. Returns a negative value on failure.
int __wdlm_add_peer(const char *function, int line, const char *peer, const char *address);

// Publishes a payload. Returns 0 when the bus has taken it, nonzero otherwise; whether it arrives
// nobody says.
int wdlm_pub(struct wdlm_bus *bus, struct wdlm_label *label, const void *payload, size_t length);

// The descriptor that is readable when a message waits, or -1. It may change from call to call.
int wdlm_fd(struct wdlm_bus *bus);

// Takes one waiting message and hands it to its subscription. Returns 0, WDLM_ERR_DROPPED when what
// waited was no message of the bus and was dropped, which the daemon puts in its log, and another
// value when there was none.
enum { WDLM_ERR_DROPPED = -74 }; // as EBADMSG
int wdlm_receive(struct wdlm_bus *bus);

#ifdef __cplusplus
}
#endif
