// The platform of the in-memory benchmarks: it answers at once and keeps nothing, so that what is
// timed is the daemon's own work.
#pragma once

#include "webfilter/records/web.h"

#include <cstdint>

// What the platform's DNS cache says of an address in network byte order: a name, or none. Without
// a function it knows no name at all.
extern const char *(*bench_name_of)(uint32_t address_be);

// The last verdict's first word: what the benchmarks read to see that verdicts really came.
extern uint32_t bench_last_verdict;
extern uint64_t bench_verdicts;

// What the URL-filtering agent says of every domain.
extern urlf_answer bench_category_answer;
