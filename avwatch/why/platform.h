// The access point as the daemon's rooms see it in this program: changes do nothing, and questions
// are answered from what was gathered about one flow. What the daemon's code hands over is kept.
//
// The functions of platform/*.h are defined in platform.cpp, in place of those of a device or of
// platform/host. There is one instance, for they have no argument that could name another.
#pragma once

#include "platform/records.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace avwatch {

// What the platform would say.
struct platform_answers {
    std::map<uint32_t, std::string> names; // of addresses, in network byte order
    // The web categories of a domain; nothing where nobody can be asked.
    std::function<std::optional<urlf_answer>(std::string_view domain)> categories;
};

struct played_platform {
    const platform_answers *answers = nullptr; // outlives the decision
    std::optional<av_verdict> verdict;         // the last one
    std::string unanswered; // the domain whose categories were asked for in vain; else empty
};

played_platform &platform_in_play();

} // namespace avwatch
