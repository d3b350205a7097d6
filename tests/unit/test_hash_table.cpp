#include "core/base/hash_table.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

struct item {
    uint32_t other;
    uint32_t key;
};

item *make_item(uint32_t key) {
    auto *made = static_cast<item *>(calloc(1, sizeof(item)));
    made->key = key;
    return made;
}

class HashTable : public testing::Test {
protected:
    void SetUp() override {
        table = hash_table_create("ITEMS", sizeof(item::key), offsetof(item, key), &error);
        ASSERT_EQ(error, 0);
    }
    void TearDown() override {
        hash_table_clear(table);
        EXPECT_EQ(table->count, 0);
        hash_table_free(table);
    }
    item *find(uint32_t key) { return static_cast<item *>(hash_table_find(table, &key, &error)); }
    uint32_t bucket(uint32_t key) const {
        return table->hash_fn(table, &key) & (HASH_TABLE_BUCKETS - 1);
    }
    // Keys that all fall into one chain, as somebody who knows the hash would choose them.
    std::vector<uint32_t> crafted_keys(size_t count) const {
        std::vector<uint32_t> keys;
        for (uint32_t key = 0; keys.size() < count; ++key) {
            if (bucket(key) == 7)
                keys.push_back(key);
        }
        return keys;
    }
    void behaves_like_a_map(const std::vector<uint32_t> &keys, size_t steps);

    hash_table *table = nullptr;
    int error = -99;
};

void HashTable::behaves_like_a_map(const std::vector<uint32_t> &keys, size_t steps) {
    std::mt19937 random(1);
    std::map<uint32_t, item *> model;
    testing::internal::CaptureStdout();
    for (size_t step = 0; step < steps; ++step) {
        const uint32_t key = keys[random() % keys.size()];
        const auto known = model.find(key);
        if (random() % 3 != 0) {
            item *added = make_item(key);
            ASSERT_EQ(hash_table_insert(table, added), known == model.end() ? 0 : -5);
            if (known == model.end()) {
                model[key] = added;
            } else { // another object that has the key
                ASSERT_EQ(hash_table_delete(table, added), -4);
                free(added);
            }
        } else if (known != model.end()) {
            ASSERT_EQ(hash_table_delete(table, known->second), 0);
            model.erase(known);
        }
        const uint32_t probe = keys[random() % keys.size()];
        const auto expected = model.find(probe);
        ASSERT_EQ(find(probe), expected == model.end() ? nullptr : expected->second);
        ASSERT_EQ(error, expected == model.end() ? -4 : 0);
    }
    EXPECT_TRUE(testing::internal::GetCapturedStdout().starts_with("key confilictions\n"));
    ASSERT_EQ(table->count, static_cast<int32_t>(model.size()));
    for (const auto &[key, expected] : model)
        ASSERT_EQ(find(key), expected);
}

TEST_F(HashTable, RandomKeysWhileItsIndexGrows) {
    std::vector<uint32_t> keys(60'000);
    std::mt19937 random(2);
    std::generate(keys.begin(), keys.end(), random);
    behaves_like_a_map(keys, 100'000);
    EXPECT_GT(table->count, 20'000);
}

TEST_F(HashTable, CraftedKeys) {
    behaves_like_a_map(crafted_keys(300), 20'000);
    EXPECT_EQ(table->buckets[7].bucket_count, static_cast<uint32_t>(table->count));
}

TEST_F(HashTable, NewestAtTheHeadOfTheChainThatTheSignedBytesChoose) {
    const uint8_t address[] = {0xC0, 0xA8, 0x01, 0x01};
    uint32_t key;
    memcpy(&key, address, sizeof key);
    ASSERT_EQ(table->hash_fn(table, &key), 2084077839u);

    const std::vector<uint32_t> keys = crafted_keys(3);
    for (const uint32_t k : keys)
        ASSERT_EQ(hash_table_insert(table, make_item(k)), 0);
    std::vector<uint32_t> seen;
    const auto visit = [](void *object, void *argument) {
        static_cast<std::vector<uint32_t> *>(argument)->push_back(static_cast<item *>(object)->key);
    };
    uint32_t counter = 5;
    hash_table_walk(table, visit, &counter, &seen);
    EXPECT_EQ(seen, (std::vector<uint32_t>{keys[2], keys[1], keys[0]}));
    EXPECT_EQ(counter, 8u);
}

} // namespace
