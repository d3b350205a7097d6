// The carrier policies and the interface bindings of Wi-Fi calling: whose traffic of which carrier
// is to be preferred on which interface.
//
// Owns the two lists of the state block. Commands change them between two packets, and the file's
// loader does at start-up, through the same functions; the packet path looks up and borrows. A
// binding names its carriers; its links to them are made when the binding arrives, and each is of a
// record of the list or none: only the flush releases carriers, and it empties the links first.
#pragma once

#include "wificalling/records/wificalling.h"

#include <string_view>

inline constexpr int WIFICALLING_ERR_EPDGS_FULL = 23;

// Command 35: adds a carrier, or takes the priority and the first ePDG of what was sent for the one
// that has its name. Returns 0, -1 where nothing is new or nothing could be kept, or 23 when the
// carrier has its five ePDGs. A new priority stands whatever is returned.
int jorn_process_wificalling_policy_cfg(const wificalling_policy_wire &asked);

// Command 36: adds a binding, gives the one of that name (without regard to letter case) other
// carriers, or deletes it (with regard to letter case). A binding without any known carrier is
// refused; one that exists loses its carriers then. Returns 0 or -1.
int jorn_process_wificalling_intf_config(const wificalling_intf_wire &asked);

// Command 38: releases all carriers. The bindings stay, without a carrier until they are sent
// again. Returns 0.
int jorn_process_wificalling_policy_flush();

// The carrier that a command of this name would update, or none.
wificalling_policy *find_carrier(std::string_view pname);

// The binding of an interface with exactly this name, or none.
const wificalling_intf *__jorn_get_wificalling_intf(const char *ifname);

// The same without regard to letter case.
wificalling_intf *__wificalling_intf_find(const char *ifname);
