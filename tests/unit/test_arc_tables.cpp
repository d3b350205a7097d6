#include "control/arc_tables.h"
#include "core/state.h"
#include "fake_platform.h"

#include <cstring>
#include <gtest/gtest.h>

namespace {

arc_policy_wire make_policy(uint32_t utp_id, const char *name, const char *uuid) {
    arc_policy_wire policy = {};
    policy.utp_id = utp_id;
    strcpy(policy.name, name);
    strcpy(policy.uuid, uuid);
    return policy;
}

utp_entry_wire make_entry(uint32_t id, const char *name, const char *uuid) {
    utp_entry_wire entry = {};
    entry.id = id;
    strcpy(entry.name, name);
    strcpy(entry.uuid, uuid);
    return entry;
}

template <typename Record>
const uint8_t *bytes(const Record &record) {
    return reinterpret_cast<const uint8_t *>(&record);
}

class ArcTables : public testing::Test {
protected:
    void SetUp() override {
        jorn_state = {};
        platform = {};
    }
    void TearDown() override { jorn_process_arc_policy_flush(); }
    const arc_policy *linked(uint32_t id) { return jorn_state.arc_utp_table[id - 1].policy; }
};

TEST_F(ArcTables, LinksFirstPolicyWithUuidWhateverItsCaseAndMovesItToTheEntry) {
    __arc_policy_add_end(bytes(make_policy(5, "first", "ab-CD")));
    __arc_policy_add_end(bytes(make_policy(6, "second", "AB-cd")));
    EXPECT_EQ(jorn_process_arc_config(bytes(make_entry(9, "guests", "AB-CD"))), 0);
    ASSERT_NE(linked(9), nullptr);
    EXPECT_STREQ(linked(9)->name, "first");
    EXPECT_EQ(linked(9)->utp_id, 9u);
    EXPECT_STREQ(jorn_state.arc_utp_table[8].name, "guests");
}

TEST_F(ArcTables, PolicyAfterEntryReplacesTheEntry) {
    jorn_process_arc_config(bytes(make_entry(3, "staff", "u")));
    EXPECT_EQ(linked(3), nullptr);
    __arc_policy_add_end(bytes(make_policy(3, "p", "u")));
    EXPECT_NE(linked(3), nullptr);
    EXPECT_STREQ(jorn_state.arc_utp_table[2].name, "");
}

TEST_F(ArcTables, LookupFinds63AndNot64) {
    for (const uint32_t id : {63u, 64u})
        EXPECT_EQ(jorn_process_arc_config(bytes(make_entry(id, "", ""))), 0);
    for (const uint32_t id : {0u, 65u, 0xFFFFFFFFu})
        EXPECT_EQ(jorn_process_arc_config(bytes(make_entry(id, "", ""))), -1);
    EXPECT_NE(utp_lookup(jorn_state.arc_utp_table, 63), nullptr);
    EXPECT_EQ(utp_lookup(jorn_state.arc_utp_table, 64), nullptr);
    EXPECT_EQ(jorn_state.arc_utp_table[63].id, 64u);
    EXPECT_EQ(utp_lookup(jorn_state.arc_utp_table, 1), nullptr);
}

TEST_F(ArcTables, NoLinkSurvivesItsPolicy) {
    // Command 8 keeps arc_enabled and tells nobody; command 24 does both.
    for (const bool clean : {true, false}) {
        platform = {};
        __arc_policy_add_end(bytes(make_policy(7, "p", "u")));
        jorn_process_arc_config(bytes(make_entry(8, "", "u")));
        const size_t calls = platform.calls.size();
        if (clean)
            jorn_process_cmd_policy_clean();
        else
            jorn_process_arc_policy_flush();
        EXPECT_EQ(jorn_state.arc_policy_list, nullptr);
        EXPECT_EQ(linked(7), nullptr);
        EXPECT_EQ(linked(8), nullptr);
        EXPECT_EQ(jorn_state.arc_utp_table[7].id, 8u);
        EXPECT_EQ(jorn_state.settings.arc_enabled, clean ? 1 : 0);
        EXPECT_EQ(platform.calls.size() - calls, clean ? 0u : 1u);
    }
}

TEST_F(ArcTables, OutOfRangePolicyIsKeptWithoutEntry) {
    __arc_policy_add_end(bytes(make_policy(0, "p", "u")));
    EXPECT_NE(jorn_state.arc_policy_list, nullptr);
    EXPECT_EQ(jorn_state.settings.arc_enabled, 1);
    for (uint32_t id = 1; id <= UTP_ID_MAX; ++id)
        EXPECT_EQ(jorn_state.arc_utp_table[id - 1].id, 0u);
}

TEST_F(ArcTables, TextsWithoutNulAreCutInTheirField) {
    arc_policy_wire policy = make_policy(1, "", "");
    memset(policy.name, 'n', sizeof policy.name);
    memset(policy.rules[0].app_name, 'a', sizeof policy.rules[0].app_name);
    __arc_policy_add_end(bytes(policy));
    EXPECT_EQ(strlen(jorn_state.arc_policy_list->name), 64u);
    EXPECT_EQ(strlen(jorn_state.arc_policy_list->rules[0].app_name), 63u);
}

TEST_F(ArcTables, LogFlagGoesToTheFirstPolicyOfThatExactName) {
    __arc_policy_add_end(bytes(make_policy(1, "Office", "a")));
    __arc_policy_add_end(bytes(make_policy(2, "office", "b")));
    char name[68] = "office";
    jorn_process_arc_policy_log_cfg(-1, name, 0x102);
    EXPECT_EQ(jorn_state.arc_policy_list->log_enable, 0);
    EXPECT_EQ(jorn_state.arc_policy_list->next->log_enable, 2);
}

} // namespace
