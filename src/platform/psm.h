// The system manager's operations, exported by the platform's library libpsm.
//
// Declarations only, in plain C: a device links its vendor's library, any other Linux machine links
// platform/host, and a test links functions of its own under the same names. records.h has the
// records that they are given. Pointers are never NULL unless it is said, records are aligned,
// texts end with a NUL, and nothing that a pointer leads to outlives the call.
//
// All of them are called from the daemon's one thread: while one blocks, no packet is judged and no
// command served. How long one may take, which is also how long platform/host waits:
//
//   psm_log_syslog, psm_beginXact, psm_cancelXact    not at all; the first is on a packet's road
//   psm_wlan_pgetAvcEn, psm_jor_mem_support          half a second, and all calls of a start, which
//                                                    asks for 64 interfaces, two seconds together
//   psm_urlfilter_get_category                       half a second: it is asked for packets
//   the others                                       half a second; start-up and events ask them
#pragma once

#include "platform/records.h"

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

// Whether the platform has the memory that application visibility needs (100 MB).
// Returns 0 when it has, nonzero when its memory is too small.
int psm_jor_mem_support(void);

// Whether the platform has the DPI engine and the memory that it needs. Returns nonzero when it
// has.
int psm_mem_support_tm(void);

// Writes the access point's base MAC address as text, like 00:1A:2B:3C:4D:5E in capitals, with its
// NUL into `text`, a buffer of 18 bytes. Returns 0, nonzero when there is no such address (the
// buffer then holds an empty text).
int psm_bsp_getMACBase(char *text);

// Opens a read-only transaction on the configuration store. Returns 0 and its handle, which may be
// NULL, or nonzero when the store can't be asked; then nothing below is asked and nothing closed.
struct psm_xact;
int psm_beginXact(struct psm_xact **xact);

// Ends a transaction and empties its handle. Returns 0 on success.
int psm_cancelXact(struct psm_xact **xact);

// Reads the application-visibility setting of a wireless interface; nonzero = on. Returns 0 and the
// setting, which is 0 for an interface without one, or nonzero with `*enable` left as it was.
int psm_wlan_pgetAvcEn(struct psm_xact *xact, const char *ifname, int *enable);

// Reads the name of the configured web-reputation server, at most `size` - 1 characters, with its
// NUL into `text`. Returns 0, nonzero when none is configured.
int psm_webroot_server_pgetName(struct psm_xact *xact, char *text, size_t size);

// Asks the URL-filtering agent for the web categories of a domain. Blocks until the answer is
// there. Returns 0 when the reply was written, nonzero with the reply left as it was: a negative
// value when there was no answer; after a positive one the daemon takes zeros for the answer.
int psm_urlfilter_get_category(const struct urlf_request *request, struct urlf_reply *reply);

// The names of the web categories by their ids 0 to 83. A name begins at its row's second byte,
// isn't empty and ends with a NUL; the first byte is anything.
extern const char g_cat_map[84][66];

// Writes the running firmware's version as text with its NUL into `text`, a buffer of `size` bytes,
// cut where it is full. Returns 0, nonzero when there is none.
int psm_sys_get_fw_version(char *text, size_t size);

// Writes one line to the platform's application-visibility syslog stream at the given syslog level
// (6, information). The line is text that clients have a say in, at most 383 characters, and no
// format. Returns 0 when the line was handed over, nonzero otherwise.
int psm_log_syslog(int level, const char *line);

#ifdef __cplusplus
}
#endif
