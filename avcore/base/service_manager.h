// What systemd, or whoever starts services as it does, is told of this one (Type=notify).
#pragma once

#include <string_view>

namespace avcore {

// Assignments, a line each, as "READY=1". Does nothing where nobody asked for them (NOTIFY_SOCKET).
void tell_service_manager(std::string_view news);

} // namespace avcore
