#include "avcore/bus/own_name.h"

#include "avcore/base/monotonic_clock.h"
#include "platform/host/machine/base_mac.h"
#include "platform/host/messages/av_messages.h"

namespace avcore {

const std::string &own_name::get() {
    const int64_t now_ms = monotonic_ms();
    if (!name_.empty() && now_ms - found_ms_ < KEPT_MS)
        return name_;
    found_ms_ = now_ms;
    char found[MAC_TEXT_SIZE];
    if (const auto given = values_.find(AV_KEY_BASE_MAC); given != values_.end())
        name_ = "AP." + given->second;
    else
        name_ = machine_base_mac(found) ? std::string("AP.") + found : std::string();
    return name_;
}

} // namespace avcore
