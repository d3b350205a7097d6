#include "avcore/web/safe_search.h"

#include "avcore/base/host_text.h"
#include "avcore/base/printable.h"
#include "core/text/ipv4_text.h"
#include "core/text/text.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace avcore {
namespace {

constexpr char UTP_PREFIX[] = "utp-";

// Of folders and files: whatever the umask, for a resolver reads them as somebody else.
constexpr mode_t FOLDER_MODE = 0755;
constexpr mode_t FILE_MODE = 0644;

unique_fd open_folder(int in, const char *name) {
    const bool is_new = mkdirat(in, name, FOLDER_MODE) == 0;
    unique_fd folder(openat(in, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (is_new && folder.valid())
        fchmod(folder.get(), FOLDER_MODE);
    return folder;
}

std::runtime_error failure(const std::string &what) {
    return std::runtime_error(what + ": " + strerror(errno));
}

void replace_file(int folder, const std::string &name, const std::string &text) {
    const std::string hidden = "." + name;
    unlinkat(folder, hidden.c_str(), 0); // of a run that was killed, or a stranger's link or FIFO
    const unique_fd file(
        openat(folder, hidden.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, FILE_MODE));
    errno = file.valid() ? ENOSPC : errno; // of a write that was cut
    if (!file.valid() || fchmod(file.get(), FILE_MODE) != 0 ||
        ::write(file.get(), text.data(), text.size()) != std::ssize(text) ||
        renameat(folder, hidden.c_str(), folder, name.c_str()) != 0)
        throw failure(name);
}

// The folder's name; empty for a side that can't have one.
std::string side_name(const av_safesearch_setting &setting) {
    if (setting.mode == AV_SAFESEARCH_UTP)
        return UTP_PREFIX + std::to_string(setting.utp_id);
    const std::string ifname(field_text(setting.ifname));
    return setting.mode == AV_SAFESEARCH_INTERFACE && is_host_text(ifname) &&
                   !ifname.starts_with(UTP_PREFIX)
               ? ifname
               : std::string();
}

} // namespace

safe_search::safe_search(const std::string &folder)
    : path_(folder), folder_(open_folder(AT_FDCWD, folder.c_str())) {
    if (!folder_.valid())
        throw failure(folder);
}

std::string safe_search::take(const av_safesearch_setting &setting) {
    std::string refusal = carry_out(setting);
    refused_ += !refusal.empty();
    return refusal;
}

std::string safe_search::carry_out(const av_safesearch_setting &setting) {
    const std::string name = side_name(setting);
    if (name.empty())
        return printable(field_text(setting.ifname)) + " is no interface with a folder";
    if (sides_.size() >= MAX_SIDES && !sides_.contains(name))
        return "more than " + std::to_string(MAX_SIDES) + " interfaces and UTPs";
    const bool by_host = setting.action != av_safesearch_action::enable;
    if (by_host && !is_host_text(field_text(setting.host)))
        return printable(field_text(setting.host)) + " is no host";
    resolver &side = sides_[name];
    std::string refusal;
    if (by_host) {
        refusal = map_host(side, setting);
    } else if (setting.value == 0) {
        side.changed |= !side.mappings.empty();
        side.mappings.clear();
    }
    changed_ |= side.changed;
    return refusal;
}

std::string safe_search::map_host(resolver &side, const av_safesearch_setting &setting) {
    const std::string host = lower_case(field_text(setting.host));
    if (setting.action == av_safesearch_action::remove) {
        side.changed |= side.mappings.erase(host) > 0;
        return {};
    }
    if (side.mappings.size() >= MAX_NAMES && !side.mappings.contains(host))
        return "more than " + std::to_string(MAX_NAMES) + " names of one interface or UTP";
    side.mappings[host] = setting.address_be;
    side.changed = true;
    return {};
}

std::string safe_search::write() {
    std::string failed;
    if (!std::exchange(changed_, false))
        return failed;
    for (auto &[name, side] : sides_) {
        if (!std::exchange(side.changed, false))
            continue;
        try {
            write_side(name, side);
        } catch (const std::runtime_error &error) {
            failed = path_ + '/' + name + '/' + error.what();
        }
    }
    return failed;
}

// A resolver that starts between the two files must not look upstream for a mapped name.
void safe_search::write_side(const std::string &name, const resolver &side) const {
    std::string hosts;
    std::string settings;
    for (const auto &[host, address_be] : side.mappings) {
        hosts.append(ipv4_text(address_be).c_str()).append(" ").append(host).append("\n");
        settings.append("local=/").append(host).append("/\n");
        settings.append("server=/*.").append(host).append("/#\n");
    }
    const unique_fd folder = open_folder(folder_.get(), name.c_str());
    if (!folder.valid())
        throw failure("");
    replace_file(folder.get(), "dnsmasq.conf", settings);
    replace_file(folder.get(), "hosts", hosts);
}

void check_safe_search_folder(const std::string &folder) {
    const char *step = access(folder.c_str(), F_OK) == 0 ? "." : "..";
    const auto place = (std::filesystem::absolute(folder) / step).lexically_normal();
    if (access(place.c_str(), W_OK | X_OK) != 0)
        throw failure(folder);
}

} // namespace avcore
