#include "avcore/names/name_word.h"

#include "platform/host/messages/av_messages.h"

#include <atomic>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

namespace avcore {

name_word::name_word() {
    unique_fd page(memfd_create("av_names", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!page.valid() || ftruncate(page.get(), AV_NAME_PAGE_SIZE) != 0)
        return;
    // First the one mapping that may write: there is none after the seals.
    void *at = mmap(nullptr, AV_NAME_PAGE_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, page.get(), 0);
    if (at == MAP_FAILED)
        return;
    word_ = static_cast<uint32_t *>(at);
    if (fcntl(page.get(), F_ADD_SEALS, AV_NAME_PAGE_SEALS) == 0)
        page_ = std::move(page);
}

name_word::~name_word() {
    if (word_ != nullptr)
        munmap(word_, AV_NAME_PAGE_SIZE);
}

// More than a release: the frame or the answer that is written next mustn't be seen before it.
void name_word::raise() {
    if (word_ != nullptr)
        ++std::atomic_ref(*word_);
}

} // namespace avcore
