#include "core/base/settings.h"

daemon_settings jorn_settings;
