// Whole files in and out.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace jornctl {

// The file's bytes; "-" is standard input. Throws refused, for more than 16 MiB too: nothing that
// the daemon takes comes near, and a device would fill the memory.
std::string read_file(const std::string &path);

// Puts `bytes` in place of `target` in one step: who opens it finds the old file or the whole new
// one, after a crash too. Makes the directory where it is missing. Throws refused, and then
// nothing is left beside the target.
void replace_file(const std::filesystem::path &target, std::string_view bytes, mode_t mode = 0644);

// Removes what a replacement of `target` that was killed has left beside it, as far as that can be.
void forget_unfinished(const std::filesystem::path &target);

// The bytes of a file that may be missing. Throws refused, as read_file does, and for what isn't a
// regular file.
std::optional<std::string> read_regular_file(const std::string &path);

// The same of one that only whoever may steer the daemon can have written: no link, the user's own
// or root's, and nobody else may write it.
std::optional<std::string> read_guarded_file(const std::string &path);

} // namespace jornctl
