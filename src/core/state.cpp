#include "core/state.h"

daemon_state jorn_state;
