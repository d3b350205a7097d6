#include "core/base/saved_file.h"

#include "core/base/log.h"
#include "core/base/shell.h"

#include <cerrno>
#include <unistd.h>

FILE *create_saved_file(const char *directory, const char *path, log_origin from) {
    if (saved_file_exists(path)) {
        unlink(path);
    } else if (access(directory, F_OK) != 0) {
        char command[256];
        snprintf(command, sizeof command, "mkdir -p %s", directory);
        run_shell(command);
    }
    FILE *file = fopen(path, "we");
    if (file == nullptr)
        JORN_LOG(JORN_LOG_ERROR, from, errno, "File:%s create error\n", path);
    return file;
}

bool saved_file_exists(const char *path) {
    return access(path, F_OK) == 0;
}

FILE *open_saved_file(const char *path, log_origin from) {
    FILE *file = fopen(path, "re");
    if (file == nullptr) {
        JORN_LOG(JORN_LOG_ERROR, from, errno, "File:%s read error\n", path);
        remove_by_shell(path, from);
    }
    return file;
}

bool write_flushed(FILE *file, std::string_view text) {
    return fwrite(text.data(), 1, text.size(), file) == text.size() && fflush(file) == 0;
}
