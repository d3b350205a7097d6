// A hash table of object pointers in 2,048 fixed chains. The key is a run of bytes inside the
// object, its size and offset given at creation.
//
// The table owns what it holds and releases it with free(): objects come from malloc or calloc. An
// object that an insert refuses stays the caller's. The chains, newest entry at the head, are what
// walking, printing and deleting see. Their hash can be computed by anybody, so whoever chooses the
// keys (a DNS server chooses addresses) can put all of them into one chain. Beside the chains the
// table therefore keeps an index by key, hashed with a secret drawn at creation; find and insert
// ask it as long as the default hash and compare functions are set. Nothing else can be told from
// it.
//
// The key of an object that the table holds must not change: who wants another deletes the object
// first. One whose key was changed in place is found under neither, and its deletion can leave the
// index with an object that was released.
//
// Not thread-safe. Its diagnostics go to standard output, not to the log.
#pragma once

#include <cstdint>

inline constexpr uint32_t HASH_TABLE_BUCKETS = 2048;

inline constexpr int HASH_TABLE_ERR_ARGUMENT = -1; // a table, key, object or callback is missing
inline constexpr int HASH_TABLE_ERR_MEMORY = -2;
inline constexpr int HASH_TABLE_ERR_NOT_FOUND = -4;
inline constexpr int HASH_TABLE_ERR_PRESENT = -5;

struct hash_index;
struct hash_table;

using hash_table_hash_fn = uint32_t (*)(const hash_table *table, const void *key);
using hash_table_compare_fn = int (*)(const void *a, const void *b, uint32_t size); // 0 = equal
using hash_table_key_of_fn = const void *(*)(const hash_table *table, const void *object);
using hash_table_print_fn = void (*)(const void *object);
using hash_table_walk_fn = void (*)(void *object, void *argument);

struct hash_node {
    void *object;
    hash_node *next;
};

struct hash_bucket {
    uint32_t bucket_count;
    hash_node *head;
};

struct hash_table {
    char name[32]; // not terminated when full
    uint32_t key_size;
    uint32_t key_offset;
    int32_t count;
    hash_table_hash_fn hash_fn;
    hash_table_compare_fn compare_fn;
    hash_table_key_of_fn key_of_fn;
    hash_table_print_fn print_fn;
    hash_bucket buckets[HASH_TABLE_BUCKETS];
    hash_index *index; // owned; none once the functions that it relies on were replaced
};

// An empty table with the default functions, or none: without `error` nothing is created, without
// memory the error is -2.
hash_table *hash_table_create(const char *name, uint32_t key_size, uint32_t key_offset, int *error);

// Replaces each function that is given. To be called before the first insert: an entry stays in the
// chain that its hash chose. Does nothing unless both `table` and `error` are given.
void hash_table_set_options(hash_table *table, hash_table_hash_fn hash,
                            hash_table_compare_fn compare, hash_table_key_of_fn key_of,
                            hash_table_print_fn print, int *error);

// Returns 0, -5 when an equal key is present, -1 or -2. The object is the table's only after 0.
int hash_table_insert(hash_table *table, void *object);

// The object with the key, borrowed, or none. Error 0, -4 not found, -1 table or key missing.
void *hash_table_find(const hash_table *table, const void *key, int *error);

// Removes and releases this very object; one that merely has its key is not found. Returns 0, -4
// or -1.
int hash_table_delete(hash_table *table, void *object);

// Calls `visit` for every object, chain by chain, and adds one to `*counter`, where there is one,
// for each. `visit` may delete the object that it was given, and no other. Returns 0 or -1.
int hash_table_walk(hash_table *table, hash_table_walk_fn visit, uint32_t *counter, void *argument);

// Removes and releases every object.
void hash_table_clear(hash_table *table);

// Lists the chains on standard output.
void hash_table_print(const hash_table *table);

// Releases the table alone: who has not cleared it before loses its objects.
void hash_table_free(hash_table *table);
