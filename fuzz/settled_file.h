// What the fuzz targets of the saved files have in common: a file as somebody may have left it is
// read, and what was read is written, read and written again. From the second writing on the file
// stays the same.
#pragma once

#include "support/fresh_state.h"

#include <cstdlib>
#include <string>
#include <string_view>

// `restore` brings the tables to what a content says and checks them; `written` is what they are
// saved as.
template <typename Restore, typename Written>
void check_that_file_settles(const uint8_t *data, size_t size, Restore restore, Written written) {
    static const int ready = (silence_log(1), 1);
    (void)ready;
    platform = {};
    restore(std::string(reinterpret_cast<const char *>(data), size));
    restore(written());
    const std::string settled = written();
    restore(settled);
    if (written() != settled)
        abort();
    restore("");
}
