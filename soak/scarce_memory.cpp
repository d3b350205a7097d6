// Stands in for the allocator of the program that is started with it (LD_PRELOAD): of what the
// program's own code asks for, operator new wherever it is called and malloc and its kin where the
// program itself calls them, some isn't granted. What C libraries ask for is, and what is asked for
// before main.
//
//   SCARCE_FIRST    the first so many are granted
//   SCARCE_EVERY    of those behind them each n-th isn't; without it all are
//   SCARCE_MOST     so many aren't, at most
//   SCARCE_COUNT    a file that says at the end how many were asked for
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <link.h>
#include <new>
#include <unistd.h>

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *old, size_t size);
}

namespace {

struct text_range {
    size_t begin = 0, end = 0;
};

text_range own_text; // zeros before main
int (*real_main)(int, char **, char **);
unsigned long first, every, most, asked;

int find_own_text(dl_phdr_info *info, size_t, void *) {
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const auto &part = info->dlpi_phdr[i];
        if (part.p_type == PT_LOAD && (part.p_flags & PF_X) != 0)
            own_text = {info->dlpi_addr + part.p_vaddr,
                        info->dlpi_addr + part.p_vaddr + part.p_memsz};
    }
    return 1; // the program is the first
}

unsigned long number_in(const char *variable) {
    const char *text = getenv(variable);
    return text != nullptr ? strtoul(text, nullptr, 10) : 0;
}

int begin(int argc, char **argv, char **variables) {
    first = number_in("SCARCE_FIRST");
    every = number_in("SCARCE_EVERY");
    most = number_in("SCARCE_MOST");
    dl_iterate_phdr(find_own_text, nullptr);
    unsetenv("LD_PRELOAD"); // for the program alone
    return real_main(argc, argv, variables);
}

__attribute__((destructor)) void end() {
    const char *path = getenv("SCARCE_COUNT");
    FILE *file = path != nullptr ? fopen(path, "w") : nullptr;
    if (file == nullptr)
        return;
    fprintf(file, "%lu\n", __atomic_load_n(&asked, __ATOMIC_RELAXED));
    fclose(file);
}

bool is_own(const void *caller) {
    const auto at = reinterpret_cast<size_t>(caller);
    return at >= own_text.begin && at < own_text.end;
}

bool is_granted() {
    if (own_text.end == 0)
        return true;
    const unsigned long number = __atomic_add_fetch(&asked, 1, __ATOMIC_RELAXED);
    return every == 0 || number <= first || (number - first) % every != 0 ||
           (number - first) / every > most;
}

void *allocate(size_t size) {
    return is_granted() ? __libc_malloc(size) : nullptr;
}

void *allocate_or_throw(size_t size) {
    void *memory = allocate(size);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

} // namespace

extern "C" {
using main_function = int (*)(int, char **, char **);

int __libc_start_main(main_function main, int argc, char **argv, void (*init)(), void (*fini)(),
                      void (*loader_fini)(), void *stack_end) {
    using start = int (*)(main_function, int, char **, void (*)(), void (*)(), void (*)(), void *);
    real_main = main;
    return reinterpret_cast<start>(dlsym(RTLD_NEXT, "__libc_start_main"))(
        begin, argc, argv, init, fini, loader_fini, stack_end);
}

void *malloc(size_t size) {
    return !is_own(__builtin_return_address(0)) || is_granted() ? __libc_malloc(size) : nullptr;
}
void *calloc(size_t count, size_t size) {
    return !is_own(__builtin_return_address(0)) || is_granted() ? __libc_calloc(count, size)
                                                                : nullptr;
}
void *realloc(void *old, size_t size) {
    return !is_own(__builtin_return_address(0)) || is_granted() ? __libc_realloc(old, size)
                                                                : nullptr;
}
}

void *operator new(size_t size) {
    return allocate_or_throw(size);
}
void *operator new[](size_t size) {
    return allocate_or_throw(size);
}
void *operator new(size_t size, const std::nothrow_t &) noexcept {
    return allocate(size);
}
void *operator new[](size_t size, const std::nothrow_t &) noexcept {
    return allocate(size);
}
