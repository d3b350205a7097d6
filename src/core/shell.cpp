#include "core/shell.h"

#include <cstdio>
#include <cstdlib>

bool is_plain_to_shell(std::string_view text) {
    constexpr std::string_view PLAIN = "abcdefghijklmnopqrstuvwxyz"
                                       "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                       "0123456789._+~-";
    return text.find_first_not_of(PLAIN) == std::string_view::npos;
}

void run_shell(const char *command) {
    [[maybe_unused]] const int status = system(command);
}

void remove_by_shell(const char *path) {
    char command[256];
    snprintf(command, sizeof command, "rm -rf %s", path);
    run_shell(command);
}
