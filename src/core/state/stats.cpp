#include "core/state/stats.h"

#include "core/base/log.h"
#include "core/state/state.h"

void jorn_print_stats() {
    const uint64_t *count = jorn_state.stats.count;
    JORN_DEBUG("\n\n");
    JORN_DEBUG("JORN statistics show:\n");
    JORN_DEBUG("received packets number: %llu\n",
               static_cast<unsigned long long>(count[STATS_RECEIVED]));
    JORN_DEBUG("output packets number: %llu\n",
               static_cast<unsigned long long>(count[STATS_OUTPUT]));
    JORN_DEBUG("flow deny number: %llu\n", static_cast<unsigned long long>(count[STATS_DENIED]));
}
