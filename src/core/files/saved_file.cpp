#include "core/files/saved_file.h"

#include "core/base/settings.h"
#include "core/base/shell.h"
#include "core/files/regular_file.h"

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool exists(const char *path) {
    return access(path, F_OK) == 0;
}

// Something is there, even a link that leads nowhere.
bool is_taken(const char *path) {
    struct stat status;
    return lstat(path, &status) == 0;
}

void make_folder() {
    if (exists(jorn_settings.saved_files_folder))
        return;
    char command[256];
    snprintf(command, sizeof command, "mkdir -p %s", jorn_settings.saved_files_folder);
    run_shell(command);
}

} // namespace

saved_file_path::saved_file_path(const char *name) {
    snprintf(text_, sizeof text_, "%s/%s", jorn_settings.saved_files_folder, name);
}

void save_file(const char *name, std::initializer_list<saved_section> sections, log_origin from) {
    const saved_file_path path(name);
    if (is_taken(path.c_str()))
        unlink(path.c_str());
    else
        make_folder();
    FILE *file = open_to_write(path.c_str());
    if (file == nullptr) {
        JORN_LOG(JORN_LOG_ERROR, from, errno, "File:%s create error\n", path.c_str());
        return;
    }
    for (const saved_section &part : sections) {
        if (part.write(file) != 0) {
            jorn_log_text(JORN_LOG_ERROR, from, 0, part.failure);
            break;
        }
    }
    fclose(file);
}

bool load_file(const char *name, std::initializer_list<section_reader *> sections,
               log_origin from) {
    const saved_file_path path(name);
    if (!exists(path.c_str()))
        return true;
    FILE *file = open_to_read(path.c_str());
    if (file == nullptr) {
        JORN_LOG(JORN_LOG_ERROR, from, errno, "File:%s read error\n", path.c_str());
        remove_by_shell(path.c_str(), from);
        return false;
    }
    read_sections(file, path.c_str(), from, sections);
    fclose(file);
    return true;
}

void section_writer::write(std::string_view piece) {
    if (result_ != 0 || write_whole(file_, piece))
        return;
    jorn_log_text(JORN_LOG_ERROR, from_, errno, failure_);
    result_ = SAVED_FILE_ERR_WRITE;
}

void section_writer::write_marker(const char *marker) {
    char line[64];
    snprintf(line, sizeof line, "%s\n", marker);
    write(line);
}
