// Zeroing and copying of the records that come with every packet, by the library's functions. Where
// GCC for x86 knows the size of one so large, it writes string instructions instead, and those take
// longer to start than the library to end.
#pragma once

#include <cstddef>
#include <cstring>

// The size of a record, as a number that the compiler doesn't know.
template <typename Record>
size_t size_at_run_time() {
    size_t size = sizeof(Record);
    asm("" : "+r"(size));
    return size;
}

template <typename Record>
void zero_record(Record &record) {
    memset(&record, 0, size_at_run_time<Record>());
}

template <typename To, typename From>
void copy_record(To &to, const From &from) {
    static_assert(sizeof(To) == sizeof(From));
    memcpy(&to, &from, size_at_run_time<From>());
}
