#include "control/files/dpi_rules.h"

#include "core/base/log.h"
#include "core/base/shell.h"
#include "core/files/regular_file.h"
#include "core/text/text.h"
#include "platform/psm.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <dirent.h>

namespace {

constexpr char RULE_FILE_MARK[] = "Wendle";
constexpr size_t VERSION_SIZE = 64;

void run_rule_agent(const char *rule_file) {
    if (!is_plain_to_shell(rule_file)) {
        JORN_ERROR_AS("jorn_load_dpi_rules", "no rules are loaded, this file name is refused: %s\n",
                      printable_text(rule_file).c_str());
        return;
    }
    char path[sizeof DPI_RULE_DIRECTORY + NAME_MAX + 1];
    snprintf(path, sizeof path, "%s/%s", DPI_RULE_DIRECTORY, rule_file);
    if (is_no_regular_file(path)) { // the agent might wait for it, and the daemon for the agent
        JORN_ERROR_AS("jorn_load_dpi_rules", "no rules are loaded, %s isn't a regular file\n",
                      path);
        return;
    }
    // A name that is too long is cut: the agent then says that there is no such file.
    char command[DPI_COMMAND_SIZE];
    if (snprintf(command, sizeof command, "/usr/sbin/tdts_rule_agent -r %s/%s", DPI_RULE_DIRECTORY,
                 rule_file) > 0)
        run_shell(command);
}

void load_first_rule_file() {
    DIR *directory = opendir(DPI_RULE_DIRECTORY);
    if (directory == nullptr)
        return;
    while (const dirent *entry = readdir(directory)) {
        if (strstr(entry->d_name, RULE_FILE_MARK) != nullptr) {
            run_rule_agent(entry->d_name);
            break;
        }
    }
    closedir(directory);
}

void write_version(const char *version) {
    if (!is_plain_to_shell(version)) {
        JORN_ERROR_AS("jorn_load_dpi_rules",
                      "%s isn't written, this firmware version is refused: %s\n", DPI_VERSION_PATH,
                      printable_text(version).c_str());
        return;
    }
    if (is_no_regular_file(DPI_VERSION_PATH)) {
        JORN_ERROR_AS("jorn_load_dpi_rules", "%s isn't written, it isn't a regular file\n",
                      DPI_VERSION_PATH);
        return;
    }
    char command[DPI_COMMAND_SIZE];
    snprintf(command, sizeof command, "echo %s > %s", version, DPI_VERSION_PATH);
    run_shell(command);
}

} // namespace

void jorn_load_dpi_rules() {
    char version[VERSION_SIZE] = {};
    psm_sys_get_fw_version(version, sizeof version);
    version[sizeof version - 1] = '\0';
    load_first_rule_file();
    write_version(version);
}
