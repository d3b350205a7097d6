// A test with a fresh state block, platform and DNS cache.
#pragma once

#include "core/base/hash_table.h"
#include "core/dns/dns_cache.h"
#include "support/frames.h"
#include "support/fresh_state.h"

#include <gtest/gtest.h>
#include <string>

class DnsCacheFixture : public testing::Test {
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
};
