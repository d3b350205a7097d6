// What the last apply left, beside the daemon's saved files: applied.json, the document of all
// tables, with what has to hold for it to be true still.
//
// Written whole or not at all, once an apply is complete, and gone before the next one sends
// anything: where it is, no apply was broken off. What is read is taken for hostile.
#pragma once

#include "jornctl/documents/documents.h"
#include "jornctl/memory/saved_files.h"
#include "shared/unique_fd.h"

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>

namespace jornctl {

// A process, told from another one that has its number later, after a restart of the machine too.
struct process_start {
    pid_t pid = 0;
    uint64_t ticks = 0; // since the machine's start
    std::string boot;

    bool operator==(const process_start &) const = default;
};

// Nothing where there is no such process, or it can't be seen.
std::optional<process_start> start_of(pid_t pid);

struct applied {
    process_start daemon;
    file_hashes files;
    document made;
};

// Nothing where there is none. Throws refused for what isn't one of ours.
std::optional<applied> read_applied(const std::string &folder);
// Throws refused; then none is left.
void write_applied(const std::string &folder, const applied &made);
// What a killed one has left unfinished beside it goes, too: to be called under the lock.
void forget_applied(const std::string &folder);

// While it lives, no other apply of this machine sends anything. Waits for one that does; throws
// refused where it takes too long. Makes the folder where there is none yet. It is of a file of its
// own, apply.lock (mode 0600): who may read the folder can't lock it.
class apply_lock {
public:
    explicit apply_lock(const std::string &folder);

private:
    unique_fd file_;
};

} // namespace jornctl
