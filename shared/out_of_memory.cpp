#include "shared/out_of_memory.h"

#include <cstdlib>
#include <exception>
#include <iterator>
#include <new>
#include <string_view>
#include <sys/uio.h>
#include <unistd.h>

namespace {

const char *said_by = "";
std::terminate_handler otherwise;

iovec piece(std::string_view text) {
    return {const_cast<char *>(text.data()), text.size()};
}

// Allocates nothing.
[[noreturn]] void end() {
    try {
        if (const std::exception_ptr thrown = std::current_exception())
            std::rethrow_exception(thrown);
    } catch (const std::bad_alloc &) {
        const iovec line[] = {piece(said_by), piece(": "), piece(NO_MEMORY), piece("\n")};
        [[maybe_unused]] const ssize_t written = writev(STDERR_FILENO, line, std::size(line));
        _exit(EXIT_FAILURE);
    } catch (...) { // as if this weren't here
    }
    otherwise();
    abort();
}

} // namespace

void end_where_memory_does(const char *program) {
    said_by = program;
    otherwise = std::set_terminate(end);
}
