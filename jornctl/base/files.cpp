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

constexpr mode_t FILE_MODE = 0644;
constexpr size_t READ_MAX = 16'777'216;

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
    explicit temporary_file(const std::string &target) : path_(target + ".XXXXXX") {
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

    void fill(std::string_view bytes) {
        write_all(fd_.get(), bytes, path_);
        if (fchmod(fd_.get(), FILE_MODE) != 0 || fsync(fd_.get()) != 0)
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

} // namespace

std::string read_file(const std::string &path) {
    unique_fd opened;
    if (path != "-") {
        opened = unique_fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        if (!opened.valid())
            fail(path, "can't be opened", errno);
    }
    const int fd = opened.valid() ? opened.get() : STDIN_FILENO;
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

void replace_file(const std::filesystem::path &target, std::string_view bytes) {
    const std::filesystem::path directory = target.has_parent_path() ? target.parent_path() : ".";
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (error)
        fail(directory, "can't be made", error.value());

    temporary_file fresh(target);
    fresh.fill(bytes);
    fresh.rename_to(target);
    // The name has to survive a power cut as well as the bytes.
    const unique_fd dir(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir.valid() || fsync(dir.get()) != 0)
        fail(directory, "can't be written", errno);
}

} // namespace jornctl
