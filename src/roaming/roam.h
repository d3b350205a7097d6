// Roaming: the names of a station's flows follow it to the next access point.
//
// Start-up opens the message bus and subscribes; the event loop watches its descriptor and calls
// wdlm_receive. Command 9 says that a station left: its flows are asked of the platform and
// published to the access point that it went to. What other access points publish goes into the DNS
// cache.
//
// A name from a peer is a hint, as any entry of the cache is: it never replaces a name that is
// there.
#pragma once

#include "platform/wdlm.h"

#include <cstddef>

inline constexpr int ROAM_ERR = -1;
inline constexpr int ROAM_ERR_PUBLISH = 26;

// Opens the bus and subscribes; `arg` is handed on to wdlm_init. Returns 0, or -1 with nothing left
// open.
int jorn_init_roam_cfg(int arg);

// Closes the bus, where it is open.
void close_roaming_bus();

// Command 9: a station left (roam_notify).
void jorn_process_cmd_roam_notify(const void *payload);

// Publishes the flows of a roam_notify's station to its new access point. Returns 0, also when
// there are none, -1 when the platform failed, 26 when they could not be published.
int jorn_process_roam_from(const void *notify_payload);

// Publishes one message to a roam_notify's new access point. Returns 0, or 26.
int jorn_roam_sync_req(const void *notify_payload, const void *message, size_t length);

// The subscription: puts the flows of a received message into the DNS cache.
void jorn_prcs_RflowRoamInfo(void *bus_arg, const wdlm_message *message);
