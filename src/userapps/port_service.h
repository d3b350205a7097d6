// The user port-service list: applications named by a port, from a file that the controller
// uploads.
//
// Start-up and command 13 replace the list; nothing saves it. Entries stand in the order of their
// names, but an update in place leaves an entry where its old name put it. The packet path asks for
// the first entry of the packet's ports. A UTP with an ARC policy allows only the entries that the
// policy lists as "User Defined": those of the source's UTP are tried first, then those of the
// destination's.
#pragma once

#include "control/records/arc.h"
#include "packet/records/context.h"
#include "userapps/records/apps.h"

struct port_app_list; // core/state/state.h

// In the folder of the saved files, where the controller puts it.
inline constexpr char PORT_SERVICE_FILE[] = "uploadjorport_file_1.0";

inline constexpr int PORT_SERVICE_ERR_LIMIT = -1;
inline constexpr int PORT_SERVICE_ERR_MEMORY = -2;
inline constexpr int PORT_SERVICE_ERR_FILE = -9;

// Replaces the list by the records of a file. Returns 0; -9 when the file can't be opened, which is
// then deleted and the list left as it was; -1 at the 1,026th record; -2 when memory ran out. The
// entries read before a failure stay. A file that can't be read to its end ends there, and the log
// says so.
int jorn_parse_port_service_conf_file(const char *path, port_app_list *list);

// Command 13: reads PORT_SERVICE_FILE and, when that returns 0, has the platform forget its flows'
// policies. Returns what the reading does.
int jorn_process_cmd_port_service_cfg_req();

// Releases every entry.
void port_app_list_clear(port_app_list *list);

// Names the packet after the first entry that fits. Returns 1 when there is one, else 0.
int jorn_detect_pkt_userdef_port_service_app(pkt_ctx *pkt);

// The entry that names a packet, or none, by the settled index.
const port_app *find_port_app(const pkt_ctx &pkt);
