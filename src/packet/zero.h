// The records that are zeroed with every packet.
#pragma once

#include <cstddef>
#include <cstring>

// Zeroes a record by the library's memset. Where GCC for x86 knows the size of one so large, it
// writes string instructions instead, and those take longer to start than the library to end.
template <typename Record>
void zero(Record &record) {
    size_t size = sizeof record;
    asm("" : "+r"(size)); // not known any more
    memset(&record, 0, size);
}
