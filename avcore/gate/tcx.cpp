#include "avcore/gate/tcx.h"

#include <array>
#include <bpf/bpf.h>
#include <cerrno>
#include <utility>

namespace avcore {
namespace {

// The numbers are Linux's since 6.6; older headers don't have them.
constexpr auto TCX_INGRESS = static_cast<bpf_attach_type>(46);
constexpr auto TCX_EGRESS = static_cast<bpf_attach_type>(47);
constexpr uint32_t BEFORE_ALL = 1U << 3;
constexpr size_t PROGRAMS_MAX = 64; // of one side

constexpr int NOT_SUPPORTED = 524; // ENOTSUPP, an error of the kernel's own

bpf_attach_type type_of(tc_side side) {
    return side == tc_side::ingress ? TCX_INGRESS : TCX_EGRESS;
}

std::optional<std::vector<uint32_t>> list_programs(unsigned if_index, tc_side side) {
    std::vector<uint32_t> ids(PROGRAMS_MAX);
    auto count = static_cast<uint32_t>(ids.size());
    switch (const int error = bpf_prog_query(static_cast<int>(if_index), type_of(side), 0, nullptr,
                                             ids.data(), &count)) {
    case 0:
        ids.resize(count);
        return ids;
    case -ENOENT: // the list is empty
    case -ENODEV: // the interface goes
        return std::vector<uint32_t>();
    case -EINVAL:
    case -EOPNOTSUPP:
    case -NOT_SUPPORTED:
        return std::nullopt;
    default:
        fail_at(if_index, "there is no telling which programs are at", error);
    }
}

std::optional<std::pair<tc_program, unique_fd>> find_tcx_gate(const std::string &pins,
                                                              unsigned if_index, tc_side side) {
    for (const uint32_t id : tcx_programs(if_index, side)) {
        unique_fd fd = open_program(pins, id, if_index);
        tc_program program = fd.valid() ? program_of(fd.get()) : tc_program();
        if (program.is_gate())
            return std::pair(std::move(program), std::move(fd));
    }
    return std::nullopt;
}

} // namespace

bool has_tcx(unsigned if_index) {
    return list_programs(if_index, tc_side::ingress).has_value();
}

std::vector<uint32_t> tcx_programs(unsigned if_index, tc_side side) {
    return list_programs(if_index, side).value_or(std::vector<uint32_t>());
}

std::optional<tc_program> tcx_gate(const std::string &pins, unsigned if_index, tc_side side) {
    auto found = find_tcx_gate(pins, if_index, side);
    return found ? std::optional(std::move(found->first)) : std::nullopt;
}

void attach_to_tcx(const std::string &pins, unsigned if_index, tc_side side, int program_fd) {
    const auto older = find_tcx_gate(pins, if_index, side);
    struct bpf_prog_attach_opts options = {}; // also the name of a function
    options.sz = sizeof options;
    options.flags = older ? uint32_t{BPF_F_REPLACE} : BEFORE_ALL;
    options.replace_prog_fd = older ? older->second.get() : 0;
    const int error =
        bpf_prog_attach_opts(program_fd, static_cast<int>(if_index), type_of(side), &options);
    if (error != 0)
        fail_at(if_index, "the gate can't be attached to", error);
}

void detach_from_tcx(const std::string &pins, unsigned if_index, tc_side side) {
    const auto gate = find_tcx_gate(pins, if_index, side);
    if (!gate)
        return;
    const int error =
        bpf_prog_detach2(gate->second.get(), static_cast<int>(if_index), type_of(side));
    if (error != 0 && error != -ENOENT)
        fail_at(if_index, "the gate can't be detached from", error);
}

} // namespace avcore
