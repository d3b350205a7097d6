#include "avcore/gate/pins.h"

#include "avcore/records/gate_records.h"

#include <algorithm>
#include <bpf/bpf.h>
#include <cctype>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <linux/magic.h>
#include <stdexcept>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/vfs.h>
#include <system_error>
#include <vector>

namespace avcore {
namespace {

namespace fs = std::filesystem;

// A folder in a bpffs that was mounted here. The mount's source doesn't say so: Linux 5.10 drops
// it.
constexpr char OWN_MOUNT[] = "mounted_by_avcore";

constexpr char PROGRAMS[] = "/programs";

[[noreturn]] void fail(const std::string &what, int error) {
    throw std::runtime_error(what + ": " + std::generic_category().message(error));
}

bool is_bpffs(const std::string &path) {
    struct statfs about = {};
    if (statfs(path.c_str(), &about) == 0)
        return static_cast<uint32_t>(about.f_type) == BPF_FS_MAGIC;
    if (errno != ENOENT && errno != ENOTDIR)
        fail(path + " can't be looked at", errno);
    return false;
}

bool is_own_mount(const std::string &pins) {
    std::error_code error;
    return fs::is_directory(fs::path(pins) / OWN_MOUNT, error);
}

bool is_layout(const std::string &name) {
    return name.size() > 1 && name.front() == 'v' &&
           std::all_of(name.begin() + 1, name.end(), [](unsigned char c) { return isdigit(c); });
}

std::vector<fs::path> folders_in(const std::string &pins, std::error_code &error) {
    std::vector<fs::path> folders;
    for (const fs::directory_entry &entry : fs::directory_iterator(pins, error))
        if (is_layout(entry.path().filename().string()))
            folders.push_back(entry.path());
    return folders;
}

// But for the mark, and the two files that the kernel itself may put into a bpffs.
bool has_entries(const std::string &pins) {
    std::error_code error;
    for (const fs::directory_entry &entry : fs::directory_iterator(pins, error))
        if (entry.path().extension() != ".debug" && entry.path().filename() != OWN_MOUNT)
            return true;
    return false;
}

// A "/" at the end of the name names the same folder.
fs::path folder_beside(const std::string &pins) {
    const fs::path path = fs::absolute(pins).lexically_normal();
    return (path.has_filename() ? path : path.parent_path()).parent_path();
}

} // namespace

std::string layout_folder(const std::string &pins) {
    return pins + "/" GATE_LAYOUT;
}

std::string pin_of(const std::string &pins, const std::string &map) {
    return layout_folder(pins) + "/" + map;
}

std::string program_folder(const std::string &pins) {
    return layout_folder(pins) + PROGRAMS;
}

std::string pin_of(const std::string &pins, uint32_t program_id) {
    return program_folder(pins) + "/" + std::to_string(program_id);
}

bool has_other_layouts(const std::string &pins) {
    std::error_code error;
    const std::vector<fs::path> folders = folders_in(pins, error);
    return std::any_of(folders.begin(), folders.end(),
                       [](const fs::path &folder) { return folder.filename() != GATE_LAYOUT; });
}

unique_fd pinned_program(const std::string &pins, uint32_t id) {
    std::error_code error;
    for (const fs::path &folder : folders_in(pins, error)) {
        const std::string pin = folder.string() + PROGRAMS + "/" + std::to_string(id);
        if (unique_fd fd(bpf_obj_get(pin.c_str())); fd.valid())
            return fd;
    }
    return {};
}

void make_pins(const std::string &pins) {
    std::error_code error;
    fs::create_directory(pins, error);
    if (error)
        throw std::runtime_error("no folder " + pins + " for the gate: " + error.message());
    if (!is_bpffs(pins)) {
        if (mount("jorn-gate", pins.c_str(), "bpf", 0, "mode=0700") != 0)
            fail("no bpffs can be mounted at " + pins, errno);
        fs::create_directory(fs::path(pins) / OWN_MOUNT, error);
    }
    for (const std::string &folder : {layout_folder(pins), program_folder(pins)}) {
        fs::create_directory(folder, error);
        if (error)
            throw std::runtime_error("no folder " + folder + ": " + error.message());
    }
}

void make_folder_beside(const std::string &pins) {
    const fs::path folder = folder_beside(pins);
    std::error_code error;
    fs::create_directories(folder, error);
    if (error)
        fail("no folder " + folder.string() + " for the gate", error.value());
}

unique_fd lock_beside(const std::string &pins) {
    const std::string folder = folder_beside(pins);
    unique_fd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.valid() ? flock(fd.get(), LOCK_EX) != 0 : errno != ENOENT)
        fail("no lock on " + folder + ", where the gate's pins are", errno);
    return fd;
}

void remove_pins(const std::string &pins, layouts which) {
    if (!is_bpffs(pins))
        return;
    std::error_code error;
    for (const fs::path &folder : folders_in(pins, error)) {
        const bool is_own = folder.filename() == GATE_LAYOUT;
        if (which == layouts::all || is_own == (which == layouts::own))
            fs::remove_all(folder, error);
        if (error && which == layouts::all)
            fail(folder.string() + " can't be removed", error.value());
    }
    if (error && which == layouts::all)
        fail(pins + " can't be read", error.value());
    if (which == layouts::others || has_entries(pins))
        return;
    if (is_own_mount(pins) && umount(pins.c_str()) != 0)
        fail(pins + " can't be unmounted", errno);
    fs::remove(pins, error);
}

} // namespace avcore
