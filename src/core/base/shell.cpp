#include "core/base/shell.h"

#include <cstdio>
#include <cstdlib>

bool is_plain_to_shell(std::string_view text) {
    constexpr std::string_view PLAIN = "abcdefghijklmnopqrstuvwxyz"
                                       "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                       "0123456789._+~-";
    return text.find_first_not_of(PLAIN) == std::string_view::npos;
}

bool run_shell(const char *command) {
    return system(command) == 0;
}

void remove_by_shell(const char *path, log_origin from) {
    char command[256];
    snprintf(command, sizeof command, "rm -rf %s", path);
    if (!run_shell(command))
        JORN_SAY(JORN_LOG_ERROR, from, "%s: can't be removed\n", path);
}
