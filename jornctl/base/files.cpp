#include "jornctl/base/files.h"

#include "jornctl/base/failure.h"
#include "shared/unique_fd.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace jornctl {
namespace {

constexpr size_t READ_MAX = 16'777'216;
constexpr std::string_view UNIQUE = "XXXXXX"; // of mkostemp, which fills it in

[[noreturn]] void fail(const std::string &path, const char *what, int error) {
    throw refused(path + ": " + what + ": " + strerror(error));
}

void write_all(int fd, std::string_view bytes, const std::string &path) {
    while (!bytes.empty()) {
        const ssize_t written = write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            fail(path, "can't be written", errno);
        bytes.remove_prefix(static_cast<size_t>(written));
    }
}

// A file of a name that nobody else has, gone again unless it was renamed.
class temporary_file {
public:
    explicit temporary_file(const std::string &target) : path_(target + '.' + std::string(UNIQUE)) {
        fd_ = unique_fd(mkostemp(path_.data(), O_CLOEXEC));
        if (!fd_.valid())
            fail(path_, "can't be made", errno);
    }
    temporary_file(const temporary_file &) = delete;
    temporary_file &operator=(const temporary_file &) = delete;
    ~temporary_file() {
        if (!renamed_)
            unlink(path_.c_str());
    }

    void fill(std::string_view bytes, mode_t mode) {
        write_all(fd_.get(), bytes, path_);
        if (fchmod(fd_.get(), mode) != 0 || fsync(fd_.get()) != 0)
            fail(path_, "can't be written", errno);
    }

    void rename_to(const std::string &target) {
        if (rename(path_.c_str(), target.c_str()) != 0)
            fail(target, "can't be replaced", errno);
        renamed_ = true;
    }

private:
    std::string path_;
    unique_fd fd_;
    bool renamed_ = false;
};

std::string read_all(int fd, const std::string &path) {
    std::string bytes;
    std::array<char, 65'536> piece;
    for (ssize_t got; (got = read(fd, piece.data(), piece.size())) != 0;) {
        if (got > 0)
            bytes.append(piece.data(), static_cast<size_t>(got));
        else if (errno != EINTR)
            fail(path, "can't be read", errno);
        if (bytes.size() > READ_MAX)
            throw refused(path + ": has more than " + std::to_string(READ_MAX) + " bytes");
    }
    return bytes;
}

// Invalid where there is no such file. Whatever stands there, the opening doesn't wait for it.
unique_fd open_regular(const std::string &path, int flags, struct stat &status) {
    unique_fd opened(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | flags));
    if (!opened.valid() && errno == ENOENT)
        return opened;
    if (!opened.valid() || fstat(opened.get(), &status) != 0)
        fail(path, "can't be opened", errno);
    if (!S_ISREG(status.st_mode))
        throw refused(path + ": isn't a regular file");
    return opened;
}

} // namespace

std::string read_file(const std::string &path) {
    unique_fd opened;
    if (path != "-") {
        opened = unique_fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        if (!opened.valid())
            fail(path, "can't be opened", errno);
    }
    return read_all(opened.valid() ? opened.get() : STDIN_FILENO, path);
}

std::optional<std::string> read_regular_file(const std::string &path) {
    struct stat status = {};
    const unique_fd opened = open_regular(path, 0, status);
    return opened.valid() ? std::optional(read_all(opened.get(), path)) : std::nullopt;
}

std::optional<std::string> read_guarded_file(const std::string &path) {
    struct stat status = {};
    const unique_fd opened = open_regular(path, O_NOFOLLOW, status);
    if (!opened.valid())
        return std::nullopt;
    if (status.st_uid != 0 && status.st_uid != geteuid())
        throw refused(path + ": is another user's");
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        throw refused(path + ": others may write it");
    return read_all(opened.get(), path);
}

void replace_file(const std::filesystem::path &target, std::string_view bytes, mode_t mode) {
    const std::filesystem::path directory = target.has_parent_path() ? target.parent_path() : ".";
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (error)
        fail(directory, "can't be made", error.value());

    temporary_file fresh(target);
    fresh.fill(bytes, mode);
    fresh.rename_to(target);
    // The name has to survive a power cut as well as the bytes.
    const unique_fd dir(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir.valid() || fsync(dir.get()) != 0)
        fail(directory, "can't be written", errno);
}

void forget_unfinished(const std::filesystem::path &target) {
    const std::string begin = target.filename().string() + '.';
    std::error_code error;
    std::error_code not_removed;
    for (std::filesystem::directory_iterator at(target.parent_path(), error), end;
         !error && at != end; at.increment(error)) {
        const std::string name = at->path().filename();
        if (name.starts_with(begin) && name.size() == begin.size() + UNIQUE.size())
            std::filesystem::remove(at->path(), not_removed);
    }
}

} // namespace jornctl
