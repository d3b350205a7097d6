#include "support/foreign_program.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <iterator>
#include <net/if.h>
#include <utility>

namespace {

// Of Linux 6.6; older headers don't have them.
constexpr auto TCX_INGRESS = static_cast<bpf_attach_type>(46);
constexpr unsigned BEFORE_ALL = 8;

} // namespace

foreign_program::foreign_program() : counting_(bpf_enable_stats(BPF_STATS_RUN_TIME)) {
    const bpf_insn code[] = {{BPF_ALU64 | BPF_MOV | BPF_K, 0, 0, 0, -1},
                             {BPF_JMP | BPF_EXIT, 0, 0, 0, 0}};
    fd_ = unique_fd(
        bpf_prog_load(BPF_PROG_TYPE_SCHED_CLS, "foreign", "GPL", code, std::size(code), nullptr));
    EXPECT_TRUE(fd_.valid()) << strerror(errno);
}

void foreign_program::attach_to_tcx(const char *interface, bool in_front) const {
    EXPECT_EQ(bpf_prog_attach(fd_.get(), static_cast<int>(if_nametoindex(interface)), TCX_INGRESS,
                              in_front ? BEFORE_ALL : 0),
              0);
}

void foreign_program::attach_to_clsact(const char *interface) const {
    bpf_tc_hook hook = {};
    hook.sz = sizeof hook;
    hook.ifindex = static_cast<int>(if_nametoindex(interface));
    hook.attach_point = BPF_TC_INGRESS;
    bpf_tc_opts options = {};
    options.sz = sizeof options;
    options.prog_fd = fd_.get();
    EXPECT_EQ(bpf_tc_hook_create(&hook), 0);
    EXPECT_EQ(bpf_tc_attach(&hook, &options), 0);
}

uint64_t foreign_program::runs() {
    bpf_prog_info info = {};
    uint32_t size = sizeof info;
    EXPECT_EQ(bpf_obj_get_info_by_fd(fd_.get(), &info, &size), 0);
    return info.run_cnt - std::exchange(seen_, info.run_cnt);
}

bool read_pinned(const std::string &pin, const void *key, void *value) {
    const unique_fd fd(bpf_obj_get(pin.c_str()));
    return bpf_map_lookup_elem(fd.get(), key, value) == 0;
}

bool write_pinned(const std::string &pin, const void *key, const void *value) {
    const unique_fd fd(bpf_obj_get(pin.c_str()));
    return bpf_map_update_elem(fd.get(), key, value, BPF_EXIST) == 0;
}
