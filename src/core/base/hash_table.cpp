#include "core/base/hash_table.h"

#include "core/base/hash_index.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// Anybody can compute it; the index is there for that.
uint32_t default_hash(const hash_table *table, const void *key) {
    const auto *bytes = static_cast<const int8_t *>(key);
    uint32_t hash = 5381;
    for (uint32_t i = 0; i < table->key_size; ++i)
        hash = hash * 33 + static_cast<uint32_t>(bytes[i]);
    return hash;
}

int default_compare(const void *a, const void *b, uint32_t size) {
    return memcmp(a, b, size);
}

const void *default_key_of(const hash_table *table, const void *object) {
    return static_cast<const uint8_t *>(object) + table->key_offset;
}

uint32_t bucket_of(const hash_table *table, const void *key) {
    return table->hash_fn(table, key) & (HASH_TABLE_BUCKETS - 1);
}

bool has_key(const hash_table *table, const void *object, const void *key) {
    return table->compare_fn(key, table->key_of_fn(table, object), table->key_size) == 0;
}

void *find_indexed(const hash_table *table, uint32_t tag, const void *key) {
    return hash_index_find(table->index, tag, [table, key](const void *object) {
        return memcmp(key, table->key_of_fn(table, object), table->key_size) == 0;
    });
}

void *find_chained(const hash_table *table, const void *key) {
    for (const hash_node *node = table->buckets[bucket_of(table, key)].head; node != nullptr;
         node = node->next) {
        if (has_key(table, node->object, key))
            return node->object;
    }
    return nullptr;
}

void push(hash_table *table, hash_bucket &bucket, hash_node *node, void *object) {
    *node = {object, bucket.head};
    bucket.head = node;
    ++bucket.bucket_count;
    ++table->count;
}

} // namespace

hash_table *hash_table_create(const char *name, uint32_t key_size, uint32_t key_offset,
                              int *error) {
    if (error == nullptr)
        return nullptr;
    auto *table = static_cast<hash_table *>(calloc(1, sizeof(hash_table)));
    hash_index *index = hash_index_create();
    if (table == nullptr || index == nullptr) {
        printf("calloc hash table %s failed\n", name);
        hash_index_free(index);
        free(table);
        *error = HASH_TABLE_ERR_MEMORY;
        return nullptr;
    }
    memcpy(table->name, name, strnlen(name, sizeof table->name));
    table->key_size = key_size;
    table->key_offset = key_offset;
    table->hash_fn = default_hash;
    table->compare_fn = default_compare;
    table->key_of_fn = default_key_of;
    table->index = index;
    *error = 0;
    return table;
}

void hash_table_set_options(hash_table *table, hash_table_hash_fn hash,
                            hash_table_compare_fn compare, hash_table_key_of_fn key_of,
                            hash_table_print_fn print, int *error) {
    if (table == nullptr || error == nullptr)
        return;
    *error = 0;
    if (hash != nullptr)
        table->hash_fn = hash;
    if (compare != nullptr)
        table->compare_fn = compare;
    if (key_of != nullptr)
        table->key_of_fn = key_of;
    if (print != nullptr)
        table->print_fn = print;
    // The index knows keys by their bytes and as they were on insertion.
    if (table->hash_fn != default_hash || table->compare_fn != default_compare ||
        (key_of != nullptr && table->count != 0)) {
        hash_index_free(table->index);
        table->index = nullptr;
    }
}

int hash_table_insert(hash_table *table, void *object) {
    if (table == nullptr || object == nullptr)
        return HASH_TABLE_ERR_ARGUMENT;
    const void *key = table->key_of_fn(table, object);
    uint32_t tag = 0;
    const void *present;
    if (table->index != nullptr) {
        tag = hash_index_tag(table->index, key, table->key_size);
        present = find_indexed(table, tag, key);
    } else {
        present = find_chained(table, key);
    }
    if (present != nullptr) {
        puts("key confilictions");
        return HASH_TABLE_ERR_PRESENT;
    }
    if (table->index != nullptr && !hash_index_reserve(table->index))
        return HASH_TABLE_ERR_MEMORY;
    auto *node = static_cast<hash_node *>(malloc(sizeof(hash_node)));
    if (node == nullptr)
        return HASH_TABLE_ERR_MEMORY;
    push(table, table->buckets[bucket_of(table, key)], node, object);
    if (table->index != nullptr)
        hash_index_add(table->index, tag, object);
    return 0;
}

void *hash_table_find(const hash_table *table, const void *key, int *error) {
    int result = HASH_TABLE_ERR_ARGUMENT;
    void *object = nullptr;
    if (table != nullptr && key != nullptr) {
        object = table->index != nullptr
                     ? find_indexed(table, hash_index_tag(table->index, key, table->key_size), key)
                     : find_chained(table, key);
        result = object != nullptr ? 0 : HASH_TABLE_ERR_NOT_FOUND;
    }
    if (error != nullptr)
        *error = result;
    return object;
}

int hash_table_delete(hash_table *table, void *object) {
    if (table == nullptr || object == nullptr)
        return HASH_TABLE_ERR_ARGUMENT;
    const void *key = table->key_of_fn(table, object);
    hash_bucket &bucket = table->buckets[bucket_of(table, key)];
    hash_node **link = &bucket.head;
    while (*link != nullptr && (*link)->object != object)
        link = &(*link)->next;
    if (*link == nullptr)
        return HASH_TABLE_ERR_NOT_FOUND;

    if (table->index != nullptr)
        hash_index_remove(table->index, hash_index_tag(table->index, key, table->key_size), object);
    hash_node *node = *link;
    *link = node->next;
    free(object);
    free(node);
    --bucket.bucket_count;
    --table->count;
    return 0;
}

int hash_table_walk(hash_table *table, hash_table_walk_fn visit, uint32_t *counter,
                    void *argument) {
    if (table == nullptr || visit == nullptr)
        return HASH_TABLE_ERR_ARGUMENT;
    for (const hash_bucket &bucket : table->buckets) {
        for (const hash_node *node = bucket.head; node != nullptr;) {
            const hash_node *next = node->next; // `visit` may delete the node
            visit(node->object, argument);
            if (counter != nullptr)
                ++*counter;
            node = next;
        }
    }
    return 0;
}

void hash_table_clear(hash_table *table) {
    if (table == nullptr)
        return;
    for (hash_bucket &bucket : table->buckets) {
        for (hash_node *node = bucket.head; node != nullptr;) {
            hash_node *next = node->next;
            free(node->object);
            free(node);
            node = next;
        }
        bucket = {};
    }
    table->count = 0;
    if (table->index != nullptr)
        hash_index_clear(table->index);
}

void hash_table_print(const hash_table *table) {
    if (table == nullptr)
        return;
    printf("\n\n PRINT %.*s Details:\n", static_cast<int>(sizeof table->name), table->name);
    printf("the number of the object is %d \n", table->count);
    for (uint32_t i = 0; i < HASH_TABLE_BUCKETS; ++i) {
        const hash_bucket &bucket = table->buckets[i];
        if (bucket.bucket_count == 0)
            continue;
        printf("\n\t\t the index is %d, the number in the bucket is %d \n", static_cast<int>(i),
               static_cast<int>(bucket.bucket_count));
        for (const hash_node *node = bucket.head; node != nullptr; node = node->next) {
            putchar('\n');
            if (table->print_fn != nullptr)
                table->print_fn(node->object);
            else
                puts("no print object API designated");
        }
    }
}

void hash_table_free(hash_table *table) {
    if (table == nullptr)
        return;
    hash_index_free(table->index);
    free(table);
}
