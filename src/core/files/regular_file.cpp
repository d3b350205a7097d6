#include "core/files/regular_file.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

int open_at_once(const char *path, int flags) {
    int fd;
    do
        fd = open(path, flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666);
    while (fd < 0 && errno == EINTR);
    return fd;
}

// 0, or why the open file can't be used.
int refusal(int fd) {
    struct stat status;
    if (fstat(fd, &status) != 0)
        return errno;
    if (S_ISDIR(status.st_mode))
        return EISDIR;
    return S_ISREG(status.st_mode) ? 0 : ENXIO;
}

FILE *open_regular(const char *path, int flags, const char *mode) {
    const int fd = open_at_once(path, flags);
    if (fd < 0)
        return nullptr;
    int reason = refusal(fd);
    FILE *file = reason == 0 ? fdopen(fd, mode) : nullptr;
    if (file != nullptr)
        return file;
    if (reason == 0)
        reason = errno;
    close(fd);
    errno = reason;
    return nullptr;
}

} // namespace

FILE *open_to_read(const char *path) {
    return open_regular(path, O_RDONLY, "r");
}

FILE *open_to_write(const char *path) {
    FILE *file = open_regular(path, O_WRONLY | O_CREAT | O_TRUNC, "w");
    if (file != nullptr)
        static_cast<void>(setvbuf(file, nullptr, _IONBF, 0));
    return file;
}

bool write_whole(FILE *file, std::string_view text) {
    while (!text.empty()) {
        text.remove_prefix(fwrite(text.data(), 1, text.size(), file));
        if (ferror(file) != 0 && errno != EINTR)
            return false;
        clearerr(file);
    }
    return true;
}

bool is_no_regular_file(const char *path) {
    struct stat status;
    return stat(path, &status) == 0 && !S_ISREG(status.st_mode);
}
