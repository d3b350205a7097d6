// The fake as a platform that keeps little of what src/platform/*.h says: platform_check has to
// find a fault with each of its checks.
#include "support/fake_platform.h"

#include "platform/psms.h"

#include <arpa/inet.h>
#include <cstring>
#include <string>

namespace {

const std::string LONG_NAME(300, 'n');

[[maybe_unused]] const bool is_wrong = [] {
    platform.base_mac = "00:1a:2b:3c:4d:5e";
    platform.avc_enable["nosuch0"] = 1;
    platform.dns[inet_addr("192.0.2.1")] = {LONG_NAME, 0, {1, 1, 1}};
    return true;
}();

} // namespace

// In place of the fake's own.
extern "C" int __wrap_psms_wdl_ioctl(int, int, unsigned int length, void *record) {
    memset(record, 0, length);
    return 0;
}

extern "C" int __wrap_psms_rflow_get_roam(const roam_notify *, roam_flow *, int *count) {
    *count = 1;
    return 0;
}
