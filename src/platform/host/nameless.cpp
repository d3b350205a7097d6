#include "platform/host/nameless.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const uint32_t *map_page(int descriptor) {
    struct stat info = {};
    const int seals = fcntl(descriptor, F_GET_SEALS);
    if (seals < 0 || (seals & AV_NAME_PAGE_SEALS) != AV_NAME_PAGE_SEALS ||
        fstat(descriptor, &info) != 0 || info.st_size != off_t{AV_NAME_PAGE_SIZE})
        return nullptr;
    const void *page = mmap(nullptr, AV_NAME_PAGE_SIZE, PROT_READ, MAP_SHARED, descriptor, 0);
    return page != MAP_FAILED ? static_cast<const uint32_t *>(page) : nullptr;
}

} // namespace

bool nameless_addresses::knows() const {
    return page_ != nullptr && connection_ == av_connection();
}

uint32_t nameless_addresses::word_now() const {
    return __atomic_load_n(page_, __ATOMIC_ACQUIRE);
}

// Multiplicative hashing, the secret factor of which is odd.
nameless_addresses::line &nameless_addresses::line_of(uint32_t address_be) {
    return lines_[static_cast<size_t>(address_be * secret_ >> (64 - LINE_BITS))];
}

bool nameless_addresses::has(uint32_t address_be) {
    if (!knows() || address_be == 0)
        return false;
    line &place = line_of(address_be);
    if (place.word != word_now())
        return false;
    auto &addresses_be = place.addresses_be;
    const auto found = std::find(addresses_be.begin(), addresses_be.end(), address_be);
    if (found == addresses_be.end())
        return false;
    std::rotate(addresses_be.begin(), found, found + 1);
    return true;
}

void nameless_addresses::prepare() {
    if (av_connected() && av_connection() != connection_ && !av_pauses(av_op::dnscache_get_name))
        ask_for_page();
    if (knows())
        word_ = word_now();
}

void nameless_addresses::remember(uint32_t address_be) {
    if (!knows() || address_be == 0) // the answer may be another connection's
        return;
    line &place = line_of(address_be);
    auto &addresses_be = place.addresses_be;
    if (place.word != word_)
        place = {word_, {}};
    std::move_backward(addresses_be.begin(), addresses_be.end() - 1, addresses_be.end());
    addresses_be.front() = address_be;
}

// A question that didn't go out is asked the next time; the connection may be another behind it.
void nameless_addresses::ask_for_page() {
    forget();
    int descriptor = -1;
    if (av_ask_descriptor(av_op::name_page, descriptor))
        connection_ = av_connection();
    if (descriptor < 0)
        return;
    page_ = map_page(descriptor);
    close(descriptor);
}

void nameless_addresses::forget() {
    if (page_ != nullptr)
        munmap(const_cast<uint32_t *>(page_), AV_NAME_PAGE_SIZE);
    page_ = nullptr;
    connection_ = 0;
    lines_.fill({});
    // A kernel that knows the seals has random numbers, and had some for the daemon's start.
    [[maybe_unused]] const ssize_t drawn = getrandom(&secret_, sizeof secret_, GRND_NONBLOCK);
    secret_ |= 1;
}
