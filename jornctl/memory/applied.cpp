#include "jornctl/memory/applied.h"

#include "jornctl/base/failure.h"
#include "jornctl/base/files.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/file.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace jornctl {
namespace {

using std::chrono::milliseconds;

constexpr int VERSION = 1;
constexpr mode_t MODE = 0640;
constexpr int START_FIELD = 22; // of /proc/PID/stat, from 1
constexpr milliseconds PATIENCE = std::chrono::seconds(30);
constexpr milliseconds PAUSE(20);

std::string path_in(const std::string &folder) {
    return folder + "/applied.json";
}

std::string boot_id() {
    std::string id;
    std::getline(std::ifstream("/proc/sys/kernel/random/boot_id"), id);
    return id;
}

using kind = nlohmann::json::value_t;

const nlohmann::json &part(const nlohmann::json &of, const char *key, kind expected) {
    const auto found = of.find(key);
    if (found == of.end() || found->type() != expected)
        throw refused(std::string("has no ") + key + " of its kind");
    return *found;
}

process_start start_in(const nlohmann::json &from) {
    const auto pid = part(from, "pid", kind::number_unsigned).get<uint64_t>();
    return {static_cast<pid_t>(pid), part(from, "start", kind::number_unsigned).get<uint64_t>(),
            part(from, "boot", kind::string).get<std::string>()};
}

file_hashes hashes_in(const nlohmann::json &from) {
    file_hashes hashes;
    for (const auto &[name, hash] : from.items()) {
        if (!hash.is_null() && !hash.is_string())
            throw refused("has no hash for " + name);
        hashes[name] = hash.is_null() ? std::nullopt : std::optional(hash.get<std::string>());
    }
    return hashes;
}

applied applied_in(const std::string &text) {
    findings found;
    const nlohmann::json parsed = parse_json(text, found);
    if (!parsed.is_object() || found.has_mistakes())
        throw refused("isn't what jornctl writes");
    if (part(parsed, "version", kind::number_unsigned) != VERSION)
        throw refused("is of another version");
    applied read = {start_in(part(parsed, "daemon", kind::object)),
                    hashes_in(part(parsed, "files", kind::object)),
                    read_document(part(parsed, "document", kind::object).dump())};
    if (read.made.found.has_mistakes())
        throw refused(read.made.found.mistakes().front());
    return read;
}

} // namespace

std::optional<process_start> start_of(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (pid <= 0 || !std::getline(file, line))
        return std::nullopt;
    // The name, in brackets, is the second field, and may hold anything.
    std::istringstream fields(line.substr(line.rfind(')') + 1));
    std::string field;
    for (int i = 3; i < START_FIELD; ++i)
        fields >> field;
    process_start found = {pid, 0, boot_id()};
    if (!(fields >> found.ticks))
        return std::nullopt;
    return found;
}

std::optional<applied> read_applied(const std::string &folder) {
    const std::string path = path_in(folder);
    const std::optional<std::string> text = read_guarded_file(path);
    if (!text)
        return std::nullopt;
    try {
        return applied_in(*text);
    } catch (const refused &reason) {
        throw refused(path + ": " + reason.what());
    }
}

void write_applied(const std::string &folder, const applied &made) {
    ordered_json hashes = ordered_json::object();
    for (const auto &[name, hash] : made.files)
        hashes[name] = hash ? ordered_json(*hash) : ordered_json();
    const ordered_json written = {
        {"version", VERSION},
        {"daemon",
         {{"pid", made.daemon.pid}, {"start", made.daemon.ticks}, {"boot", made.daemon.boot}}},
        {"files", std::move(hashes)},
        {"document", document_words(made.made)}};
    replace_file(path_in(folder), to_text(written), MODE);
}

void forget_applied(const std::string &folder) {
    const std::string path = path_in(folder);
    forget_unfinished(path);
    if (unlink(path.c_str()) != 0 && errno != ENOENT && errno != ENOTDIR)
        throw refused(path + ": can't be removed: " + strerror(errno));
}

apply_lock::apply_lock(const std::string &folder) {
    std::error_code not_made; // the daemon may make it only now
    std::filesystem::create_directories(folder, not_made);
    file_ = unique_fd(open((folder + "/apply.lock").c_str(),
                           O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    for (auto left = PATIENCE;
         file_.valid() && flock(file_.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
         left -= PAUSE) {
        if (left <= PAUSE)
            throw refused("another jornctl has been applying a document for too long");
        std::this_thread::sleep_for(PAUSE);
    }
}

} // namespace jornctl
