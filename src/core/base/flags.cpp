#include "core/base/flags.h"

volatile sig_atomic_t parent_waiting;
volatile sig_atomic_t pending_signal;
volatile sig_atomic_t initialising;
volatile sig_atomic_t running = 1;

uint32_t pkt_count;
