// `jornctl diff` and `jornctl export`: the document and the daemon's tables, seen from either side.
#pragma once

#include "jornctl/client/client.h"

#include <string>

namespace jornctl {

// Prints what an apply of the file would change. Returns the exit status: 0 nothing, 1 something, 2
// when the document is wrong or a saved file can't be read. Throws no_daemon, and refused where it
// can't compare.
int show_differences(const std::string &file, bool as_json, const client &daemon);

// Prints the document that is in force; what no document can say, or nobody knows, is said on
// standard error. Asks nothing of a daemon that isn't given. Returns the exit status.
int export_document(const client *daemon);

} // namespace jornctl
