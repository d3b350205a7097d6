#include "core/system/descriptors.h"

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int OWN_DESCRIPTOR_MIN = 12; // the capture's is lower

} // namespace

int behind_capture(int fd) {
    if (fd < 0 || fd >= OWN_DESCRIPTOR_MIN)
        return fd;
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, OWN_DESCRIPTOR_MIN);
    if (moved < 0)
        return fd;
    close(fd);
    return moved;
}
