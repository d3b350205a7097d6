// What this access point is called on the bus: by its base MAC, as the daemon finds it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace avcore {

class own_name {
public:
    using platform_values = std::map<std::string, std::string, std::less<>>;

    // They outlive it, and may change.
    explicit own_name(const platform_values &values) : values_(values) {}

    // Empty while there is none: an interface may come, and with it a name.
    const std::string &get();

private:
    static constexpr int64_t KEPT_MS = 1'000;

    const platform_values &values_;
    std::string name_;
    int64_t found_ms_ = 0; // when it was last looked up
};

} // namespace avcore
