// The index by key of a hash table: open addressing under a secret, so that its cost doesn't depend
// on who chose the keys. Private to hash_table.cpp.
//
// It keeps 31 bits of each key's hash beside the object's address: a key that isn't there is seldom
// compared with an object, and growing reads no object at all. The initial size takes the 16,385
// entries of a full DNS cache without ever growing.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr uint32_t HASH_INDEX_INITIAL_SLOTS = 32'768;

struct hash_index {
    uint64_t secret[2];
    uint32_t mask; // slots - 1, a power of two less one
    uint32_t used;
    uint32_t *tags; // by slot: the top bit and the lower bits of the hash; 0 = free
    void **objects; // by slot, borrowed
};

// An empty index with a fresh secret, or none when memory ran out.
hash_index *hash_index_create();
void hash_index_free(hash_index *index);

// What the index knows a key by.
uint32_t hash_index_tag(const hash_index *index, const void *key, size_t size);

// Makes room for one more object. Returns false, and changes nothing, when memory ran out.
bool hash_index_reserve(hash_index *index);

// Enters an object; hash_index_reserve has made room.
void hash_index_add(hash_index *index, uint32_t tag, void *object);

// Takes out an object that was entered under the tag.
void hash_index_remove(hash_index *index, uint32_t tag, const void *object);

void hash_index_clear(hash_index *index);

// The first object under the tag for which `equal` holds, or none.
template <typename Equal>
void *hash_index_find(const hash_index *index, uint32_t tag, Equal equal) {
    for (uint32_t slot = tag & index->mask; index->tags[slot] != 0;
         slot = (slot + 1) & index->mask) {
        if (index->tags[slot] == tag && equal(index->objects[slot]))
            return index->objects[slot];
    }
    return nullptr;
}
