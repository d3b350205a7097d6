// By which of the kernel's two ways the gate's programs are attached to an interface.
#pragma once

namespace avcore {

enum class attach_way {
    tcx,    // a list of programs, since Linux 6.6
    clsact, // filters of traffic control
};
inline constexpr attach_way ATTACH_WAYS[] = {attach_way::tcx, attach_way::clsact};

constexpr const char *name_of(attach_way way) {
    return way == attach_way::tcx ? "tcx" : "clsact";
}

} // namespace avcore
