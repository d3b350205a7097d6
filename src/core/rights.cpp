#include "core/rights.h"

#include "core/base/log.h"

#include <cerrno>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr int KEPT = CAP_NET_RAW;

// Or root would have them back in the programs that it starts. Without CAP_SETPCAP, which somebody
// else than root lacks, nothing can be taken here, and no program gets any back.
void take_from_children() {
    for (int each = 0; prctl(PR_CAPBSET_READ, each) >= 0; ++each)
        if (each != KEPT)
            prctl(PR_CAPBSET_DROP, each);
    prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
}

} // namespace

void give_up_rights() {
    take_from_children();
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct rights[_LINUX_CAPABILITY_U32S_3] = {};
    bool done = syscall(SYS_capget, &header, rights) == 0;
    bool has_more = false;
    for (auto &word : rights) {
        const uint32_t kept = &word == rights ? word.permitted & 1U << KEPT : 0;
        has_more = has_more || word.permitted != kept || word.inheritable != 0;
        word = {kept, kept, 0};
    }
    // A unit that has taken them away may not let the system call pass either.
    done = done && (!has_more || syscall(SYS_capset, &header, rights) == 0);
    if (!done)
        JORN_ERRNO(errno, "the rights that aren't needed can't be given up\n");
}
