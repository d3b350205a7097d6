// What the daemon's tables hold before a document changes them: what the last apply left, as long
// as nobody else has been there; else what the saved files and the listings tell.
#pragma once

#include "jornctl/client/client.h"
#include "jornctl/documents/documents.h"
#include "jornctl/memory/applied.h"
#include "jornctl/tables/daemon_tables.h"

#include <optional>
#include <string>
#include <vector>

namespace jornctl {

// The tables of documents, a bit each.
enum table_bit : uint8_t {
    KNOWS_POLICIES = 1,
    KNOWS_UTPS = 2,
    KNOWS_WEB_POLICIES = 4,
    KNOWS_WEB_UTPS = 8,
    KNOWS_CARRIERS = 16,
    KNOWS_OTHERS = 32, // what the files hold whole: applications and bindings
    KNOWS_ALL = 63,
};

struct baseline {
    daemon_tables tables;
    uint8_t known = 0;                        // tables of which nothing is unknown
    bool is_remembered = false;               // by the last apply
    bool are_files_read = true;               // else nothing of the tables is known
    std::optional<process_start> daemon = {}; // whose they are

    bool is_whole() const { return known == KNOWS_ALL; }
    // What isn't known, in words.
    std::vector<std::string> doubts() const;
};

// Asks nothing of a daemon that isn't given. Why the last apply's memory isn't used, where there is
// one, is said on standard error, and why a file can't be read. Throws no_daemon, and refused for
// listings that can't be read.
baseline learn_baseline(const client *daemon, const std::string &folder);

// What is known of the tables once all of the document's commands are sent.
baseline after_all(const baseline &before, const document &wanted);

// Keeps what a complete apply has left, where it is whole, the daemon is still the same one, its
// listings and files agree, and a document can say it. Why it isn't kept is said on standard error
// where that is odd.
void remember(const baseline &left, const client &daemon, const std::string &folder);

// Fits what was seen of policies to what the document would make, in the parts that can't be known:
// they don't differ.
void assume_unknown(baseline &seen, const document &wanted);

} // namespace jornctl
