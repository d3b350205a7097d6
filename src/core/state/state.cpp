#include "core/state/state.h"

daemon_state jorn_state;
