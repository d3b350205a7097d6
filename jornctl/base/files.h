// Whole files in and out.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace jornctl {

// The file's bytes; "-" is standard input. Throws refused, for more than 16 MiB too: nothing that
// the daemon takes comes near, and a device would fill the memory.
std::string read_file(const std::string &path);

// Puts `bytes` in place of `target` in one step: who opens it finds the old file or the whole new
// one, after a crash too. Makes the directory where it is missing. Throws refused, and then
// nothing is left beside the target.
void replace_file(const std::filesystem::path &target, std::string_view bytes);

} // namespace jornctl
