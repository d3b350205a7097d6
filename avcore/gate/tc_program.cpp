#include "avcore/gate/tc_program.h"

#include "avcore/gate/pins.h"

#include <algorithm>
#include <array>
#include <bpf/bpf.h>
#include <cerrno>
#include <cstring>
#include <net/if.h>
#include <stdexcept>
#include <system_error>

namespace avcore {

tc_program program_of(int fd) {
    std::array<uint32_t, 64> ids = {};
    bpf_prog_info info = {};
    uint32_t size = sizeof info;
    info.nr_map_ids = ids.size();
    info.map_ids = reinterpret_cast<uintptr_t>(ids.data());
    if (bpf_obj_get_info_by_fd(fd, &info, &size) != 0)
        return {};
    tc_program program;
    program.id = info.id;
    program.name.assign(info.name, strnlen(info.name, sizeof info.name));
    program.tag.assign(reinterpret_cast<const char *>(info.tag), sizeof info.tag);
    program.map_ids.assign(ids.begin(),
                           ids.begin() + std::min<size_t>(info.nr_map_ids, ids.size()));
    return program;
}

unique_fd open_program(const std::string &pins, uint32_t id, unsigned if_index) {
    if (unique_fd pinned = pinned_program(pins, id); pinned.valid())
        return pinned;
    unique_fd fd(bpf_prog_get_fd_by_id(id));
    if (!fd.valid() && errno != ENOENT && errno != EPERM)
        fail_at(if_index, "there is no telling what the program is at", errno);
    return fd;
}

std::string interface_name(unsigned if_index) {
    char name[IF_NAMESIZE] = {};
    return if_indextoname(if_index, name) ? name : std::to_string(if_index);
}

void fail_at(unsigned if_index, const std::string &what, int error) {
    throw std::runtime_error(what + " " + interface_name(if_index) + ": " +
                             std::generic_category().message(error < 0 ? -error : error));
}

} // namespace avcore
