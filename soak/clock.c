// The wall's clock of the programs that are preloaded with this, off by as many nanoseconds as the file
// $SOAK_CLOCK holds at the moment: so it jumps for them, and for nobody else on the machine.
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#define SECOND INT64_C(1000000000)

static const volatile int64_t *ahead_ns;

__attribute__((constructor)) static void find_file(void) {
    const char *path = getenv("SOAK_CLOCK");
    const int fd = path ? open(path, O_RDONLY | O_CLOEXEC) : -1;
    void *there = fd < 0 ? MAP_FAILED : mmap(NULL, sizeof *ahead_ns, PROT_READ, MAP_SHARED, fd, 0);
    if (fd >= 0)
        close(fd);
    if (there != MAP_FAILED)
        ahead_ns = there;
}

int clock_gettime(clockid_t clock, struct timespec *now) {
    const int result = (int)syscall(SYS_clock_gettime, clock, now);
    if (result == 0 && ahead_ns && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) {
        const int64_t ns = now->tv_sec * SECOND + now->tv_nsec + *ahead_ns;
        now->tv_sec = ns / SECOND;
        now->tv_nsec = ns % SECOND;
    }
    return result;
}

int gettimeofday(struct timeval *restrict now, void *restrict zone) {
    (void)zone;
    struct timespec exact;
    clock_gettime(CLOCK_REALTIME, &exact);
    now->tv_sec = exact.tv_sec;
    now->tv_usec = exact.tv_nsec / 1000;
    return 0;
}

time_t time(time_t *now) {
    struct timespec exact;
    clock_gettime(CLOCK_REALTIME, &exact);
    if (now)
        *now = exact.tv_sec;
    return exact.tv_sec;
}
