// What has to hold of every input; where it doesn't, the process says where and ends, which is a
// finding.
#pragma once

#include <cstdio>
#include <cstdlib>

inline void demand(bool holds, const char *file = __builtin_FILE(), int line = __builtin_LINE()) {
    if (holds)
        return;
    fprintf(stderr, "%s:%d: doesn't hold\n", file, line);
    abort();
}
