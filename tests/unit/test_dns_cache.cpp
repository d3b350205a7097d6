#include "core/base/hash_table.h"
#include "core/dns/dns_cache.h"
#include "support/frames.h"
#include "support/fresh_state.h"
#include "support/memory_file.h"

#include <gtest/gtest.h>

namespace {

constexpr uint32_t FULL = 16385;

class DnsCache : public testing::Test {
protected:
    void SetUp() override {
        fresh_state();
        ASSERT_EQ(jorn_dnscache_hash_table_init(), 0);
    }
    void TearDown() override {
        hash_table_clear(jorn_state.dns_cache);
        hash_table_free(jorn_state.dns_cache);
        fresh_state();
    }
    // The cached name, or "-".
    static std::string cached(const std::string &address) {
        char name[64];
        return jorn_dnscache_find(ip(address), name, sizeof name) != nullptr ? name : "-";
    }
    static std::string listing() {
        const memory_file reply;
        EXPECT_EQ(jorn_dnscache_show(reply.fd()), 0);
        return reply.content();
    }
    static dns_cache_entry *entry(uint32_t address_be) {
        return static_cast<dns_cache_entry *>(
            hash_table_find(jorn_state.dns_cache, &address_be, nullptr));
    }
};

TEST_F(DnsCache, KeepsTheFirstNameOfAnAddressCutTo63Characters) {
    EXPECT_EQ(learn_dns_name(ip("192.0.2.1"), std::string(64, 'a')), 0);
    EXPECT_EQ(learn_dns_name(ip("192.0.2.1"), "later"), -7);
    EXPECT_EQ(cached("192.0.2.1"), std::string(63, 'a'));
    EXPECT_EQ(cached("192.0.2.2"), "-");
    EXPECT_EQ(jorn_dnscache_add(nullptr), -1);
    // A writer of its own that fills the field.
    auto *raw = static_cast<dns_cache_entry *>(calloc(1, sizeof(dns_cache_entry)));
    memset(raw->name, 'b', sizeof raw->name);
    EXPECT_EQ(jorn_dnscache_add(raw), 0);
    EXPECT_EQ(cached("0.0.0.0"), std::string(63, 'b'));
}

TEST_F(DnsCache, FindRestartsTheAgeAndFillsTheBuffer) {
    learn_dns_name(ip("192.0.2.1"), "a.example");
    jorn_dnscache_age();
    jorn_dnscache_age();
    EXPECT_EQ(entry(ip("192.0.2.1"))->age, 10u);
    char buffer[100];
    memset(buffer, 'x', sizeof buffer);
    EXPECT_EQ(jorn_dnscache_find(ip("192.0.2.1"), buffer, sizeof buffer), buffer);
    EXPECT_EQ(std::string(buffer, sizeof buffer), "a.example" + std::string(91, '\0'));
    jorn_dnscache_find(ip("192.0.2.1"), buffer, 4);
    EXPECT_STREQ(buffer, "a.example");
    EXPECT_EQ(entry(ip("192.0.2.1"))->age, 0u);
}

TEST_F(DnsCache, FullCacheRefusesUntilAgingMakesRoomForOne) {
    for (uint32_t i = 1; i <= FULL; ++i)
        ASSERT_EQ(learn_dns_name(i, "n"), 0);
    EXPECT_EQ(learn_dns_name(FULL + 1, "n"), -8);
    const auto set_age = [](void *object, void *age) {
        static_cast<dns_cache_entry *>(object)->age = *static_cast<uint32_t *>(age);
    };
    uint32_t age = 599'995; // the next step reaches the limit without exceeding it
    hash_table_walk(jorn_state.dns_cache, set_age, nullptr, &age);
    jorn_dnscache_age();
    EXPECT_EQ(jorn_state.dns_cache->count, static_cast<int32_t>(FULL));
    jorn_dnscache_age();
    jorn_dnscache_age();
    EXPECT_EQ(jorn_state.dns_cache->count, static_cast<int32_t>(FULL) - 1);
    EXPECT_EQ(learn_dns_name(FULL + 1, "n"), 0);
    EXPECT_EQ(jorn_state.dns_cache->count, static_cast<int32_t>(FULL));
}

} // namespace
