// A folder of its own for the files that the daemon saves, for as long as the object lives.
#pragma once

#include "core/base/settings.h"
#include "core/text/text.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

class saved_folder {
public:
    saved_folder() {
        if (mkdtemp(path_) == nullptr)
            abort();
        use();
    }
    ~saved_folder() { std::filesystem::remove_all(path_); }
    saved_folder(const saved_folder &) = delete;
    saved_folder &operator=(const saved_folder &) = delete;

    // Again, after the settings were reset.
    void use() const { copy_text(jorn_settings.saved_files_folder, path_); }

    std::string path_of(const char *name) const { return path_ + ('/' + std::string(name)); }
    void write(const char *name, std::string_view content) const {
        std::ofstream(path_of(name), std::ios::binary) << content;
    }
    std::string read(const char *name) const {
        std::ostringstream content;
        content << std::ifstream(path_of(name), std::ios::binary).rdbuf();
        return content.str();
    }

private:
    char path_[32] = "/tmp/jorn_saved_XXXXXX";
};
