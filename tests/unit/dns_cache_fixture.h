// A test with a fresh state block, platform and DNS cache.
#pragma once

#include "core/base/hash_table.h"
#include "core/base/settings.h"
#include "core/dns/dns_cache.h"
#include "core/state/state.h"
#include "fake_platform.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <string>

// Of "" the address 0.
inline uint32_t ip(const std::string &text) {
    uint32_t address_be = 0;
    inet_pton(AF_INET, text.c_str(), &address_be);
    return address_be;
}

class DnsCacheFixture : public testing::Test {
protected:
    void SetUp() override {
        jorn_state = {};
        jorn_settings = {};
        platform = {};
        ASSERT_EQ(jorn_dnscache_hash_table_init(), 0);
    }
    void TearDown() override {
        hash_table_clear(jorn_state.dns_cache);
        hash_table_free(jorn_state.dns_cache);
        jorn_state = {};
        jorn_settings = {};
    }
    // The cached name, or "-".
    static std::string cached(const std::string &address) {
        char name[64];
        return jorn_dnscache_find(ip(address), name, sizeof name) != nullptr ? name : "-";
    }
};
