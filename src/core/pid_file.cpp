#include "core/pid_file.h"

#include "core/files/regular_file.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr size_t PID_LINE_SIZE = 128;
constexpr size_t PS_LINE_SIZE = 256;

} // namespace

int write_pid_file(const char *path) {
    if (path == nullptr)
        return PID_FILE_ERR;
    const mode_t old_mask = umask(022);
    FILE *file = open_to_write(path);
    umask(old_mask);
    if (file == nullptr)
        return PID_FILE_ERR;
    fprintf(file, "%d\n", getpid());
    fclose(file);
    return 0;
}

pid_t read_pid_file(const char *path) {
    FILE *file = path != nullptr ? open_to_read(path) : nullptr;
    if (file == nullptr)
        return 0;
    char line[PID_LINE_SIZE] = {};
    if (fgets(line, sizeof line, file) == nullptr)
        line[0] = '\0';
    fclose(file);
    line[strcspn(line, "\r\n")] = '\0';
    return static_cast<pid_t>(strtol(line, nullptr, 10));
}

bool another_instance_runs() {
    const pid_t pid = read_pid_file(PID_FILE_PATH);
    if (pid < 1)
        return false;
    char command[128];
    snprintf(command, sizeof command, "ps | grep jorn");
    FILE *listing = popen(command, "re");
    if (listing == nullptr)
        return false;
    bool found = false;
    char line[PS_LINE_SIZE];
    while (fgets(line, sizeof line, listing) != nullptr) {
        line[strcspn(line, "\r\n")] = '\0';
        if (strtol(line, nullptr, 10) == pid)
            found = true;
    }
    pclose(listing);
    return found;
}
