// A program of somebody else's at an interface's ingress, which lets everything go on to the next
// one; and a look into a map of the gate's. Apart from the tests, for the kernel's header of such
// programs and libpcap's don't go together.
#pragma once

#include "shared/unique_fd.h"

#include <cstdint>
#include <string>

class foreign_program {
public:
    foreign_program();

    void attach_to_tcx(const char *interface, bool in_front) const;
    void attach_to_clsact(const char *interface) const; // which there is none of
    uint64_t runs();                                    // since the last call

private:
    unique_fd fd_;
    unique_fd counting_;
    uint64_t seen_ = 0;
};

// A value of a pinned map. False: it can't be read, or written.
bool read_pinned(const std::string &pin, const void *key, void *value);
bool write_pinned(const std::string &pin, const void *key, const void *value);
