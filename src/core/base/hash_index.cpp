#include "core/base/hash_index.h"

#include "core/text/keyed_hash.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/random.h>

namespace {

constexpr uint32_t USED = 0x80000000;

// Without a random source (a kernel older than getrandom) the clock and the address that the
// allocator chose are what a stranger knows least.
void draw_secret(hash_index &index) {
    ssize_t drawn;
    do
        drawn = getrandom(index.secret, sizeof index.secret, 0);
    while (drawn < 0 && errno == EINTR);
    if (drawn == static_cast<ssize_t>(sizeof index.secret))
        return;
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    index.secret[0] = static_cast<uint64_t>(now.tv_sec) << 32 ^ static_cast<uint64_t>(now.tv_nsec);
    index.secret[1] = reinterpret_cast<uintptr_t>(&index);
}

bool allocate_slots(hash_index &index, uint32_t slots) {
    auto *tags = static_cast<uint32_t *>(calloc(slots, sizeof *index.tags));
    auto *objects = static_cast<void **>(calloc(slots, sizeof *index.objects));
    if (tags == nullptr || objects == nullptr) {
        free(tags);
        free(static_cast<void *>(objects));
        return false;
    }
    index.tags = tags;
    index.objects = objects;
    index.mask = slots - 1;
    index.used = 0;
    return true;
}

void release_slots(const hash_index &index) {
    free(index.tags);
    free(static_cast<void *>(index.objects));
}

} // namespace

hash_index *hash_index_create() {
    auto *index = static_cast<hash_index *>(calloc(1, sizeof(hash_index)));
    if (index == nullptr)
        return nullptr;
    if (!allocate_slots(*index, HASH_INDEX_INITIAL_SLOTS)) {
        free(index);
        return nullptr;
    }
    draw_secret(*index);
    return index;
}

void hash_index_free(hash_index *index) {
    if (index == nullptr)
        return;
    release_slots(*index);
    free(index);
}

uint32_t hash_index_tag(const hash_index *index, const void *key, size_t size) {
    const uint64_t hash = keyed_hash(index->secret, static_cast<const uint8_t *>(key), size);
    return static_cast<uint32_t>(hash) | USED;
}

bool hash_index_reserve(hash_index *index) {
    const uint32_t slots = index->mask + 1;
    if (index->used < slots / 4 * 3)
        return true;
    const hash_index old = *index;
    if (slots > USED / 2 || !allocate_slots(*index, slots * 2))
        return false;
    for (uint32_t slot = 0; slot < slots; ++slot) {
        if (old.tags[slot] != 0)
            hash_index_add(index, old.tags[slot], old.objects[slot]);
    }
    release_slots(old);
    return true;
}

void hash_index_add(hash_index *index, uint32_t tag, void *object) {
    uint32_t slot = tag & index->mask;
    while (index->tags[slot] != 0)
        slot = (slot + 1) & index->mask;
    index->tags[slot] = tag;
    index->objects[slot] = object;
    ++index->used;
}

void hash_index_remove(hash_index *index, uint32_t tag, const void *object) {
    const uint32_t mask = index->mask;
    uint32_t hole = tag & mask;
    while (index->tags[hole] != 0 && index->objects[hole] != object)
        hole = (hole + 1) & mask;
    if (index->tags[hole] == 0)
        return;
    // What follows moves up, unless its search starts behind the hole: no marks of deleted entries
    // pile up.
    for (uint32_t slot = (hole + 1) & mask; index->tags[slot] != 0; slot = (slot + 1) & mask) {
        const uint32_t distance_from_home = (slot - index->tags[slot]) & mask;
        if (distance_from_home < ((slot - hole) & mask))
            continue;
        index->tags[hole] = index->tags[slot];
        index->objects[hole] = index->objects[slot];
        hole = slot;
    }
    index->tags[hole] = 0;
    --index->used;
}

void hash_index_clear(hash_index *index) {
    memset(index->tags, 0, (size_t{index->mask} + 1) * sizeof *index->tags);
    index->used = 0;
}
