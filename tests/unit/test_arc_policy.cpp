#include "classify/arc_policy.h"
#include "control/arc_tables.h"
#include "core/state.h"
#include "fake_platform.h"

#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>

namespace {

arc_rule domain_rule(const std::string &domain, bool deny = false) {
    arc_rule rule = {};
    strncpy(rule.app_name, domain.c_str(), sizeof rule.app_name - 1);
    rule.deny = deny;
    return rule;
}

arc_rule id_rule(uint16_t app_id, uint16_t cat_id) {
    arc_rule rule = domain_rule("by-id");
    rule.app_id = app_id;
    rule.cat_id = cat_id;
    return rule;
}

const arc_policy *add_policy(uint32_t utp_id, const std::vector<arc_rule> &rules) {
    arc_policy_wire wire = {};
    wire.utp_id = utp_id;
    std::copy(rules.begin(), rules.end(), wire.rules);
    __arc_policy_add_end(reinterpret_cast<const uint8_t *>(&wire));
    const arc_policy *policy = jorn_state.arc_policy_list;
    while (policy->next != nullptr)
        policy = policy->next;
    return policy;
}

void add_bare_utp(uint32_t id) {
    utp_entry_wire entry = {};
    entry.id = id;
    jorn_process_arc_config(reinterpret_cast<const uint8_t *>(&entry));
}

pkt_ctx named(const std::string &name, uint16_t app_id = 0, uint16_t cat_id = 0) {
    pkt_ctx ctx = {};
    strncpy(ctx.app_name, name.c_str(), sizeof ctx.app_name - 1);
    ctx.app_id = app_id;
    ctx.app_cat_id = cat_id;
    return ctx;
}

class ArcPolicy : public testing::Test {
protected:
    void SetUp() override {
        jorn_state = {};
        platform = {};
    }
    void TearDown() override { jorn_process_arc_policy_flush(); }
};

TEST(DomainMatch, Rows) {
    const std::string n59(59, 'n');
    const std::string n60(60, 'n');
    const struct {
        std::string name, domain;
        bool fits;
    } rows[] = {
        {"ICMP", "icmp", true},
        {"EXAMPLE", "example.com", true},
        {"www.Example.COM.evil.org", "example.com", true},
        {"example.org", "example.com", false},
        {"", "com", false},
        {"anything", "", true}, // an empty domain never reaches the match: its slot is free
        {n59, n59 + ".com", true},
        {n60, n60.substr(4) + ".com", false},
        {"caf\xC3\x89", "caf\xC3\xA9", false}, // only A to Z have a case
        {"short", "a much longer rule than the name", false},
    };
    for (const auto &row : rows)
        EXPECT_EQ(__jorn_domain_match(row.name.c_str(), row.domain.c_str()) != 0, row.fits)
            << row.name << " / " << row.domain;
    EXPECT_EQ(__jorn_domain_match(nullptr, "a"), 0);
    EXPECT_EQ(__jorn_domain_match("a", nullptr), 0);
}

// The index names candidates only; what it leaves out must never fit. Random names and rules of few
// letters make collisions and near misses common.
TEST_F(ArcPolicy, IndexFindsWhatAWalkFinds) {
    std::mt19937 random(20261124);
    const auto text = [&](size_t longest) {
        std::string letters(random() % (longest + 1), ' ');
        for (char &letter : letters)
            letter = "abAB.c"[random() % 6];
        return letters;
    };
    size_t fits = 0;
    for (int round = 0; round < 300; ++round) {
        std::vector<arc_rule> rules;
        for (size_t n = 0; n < ARC_RULES_PER_POLICY; ++n) {
            rules.push_back(random() % 4 == 0 ? id_rule(static_cast<uint16_t>(1 + random() % 9),
                                                        static_cast<uint16_t>(random() % 3))
                                              : domain_rule(random() % 3 == 0 ? "" : text(9)));
        }
        const arc_policy *policy = add_policy(1, rules);
        for (int packet = 0; packet < 20; ++packet) {
            const pkt_ctx ctx = named(text(64), static_cast<uint16_t>(random() % 12),
                                      static_cast<uint16_t>(random() % 3));
            const arc_rule *wanted = nullptr;
            for (const arc_rule &rule : policy->rules) {
                const bool by_id =
                    rule.app_id != 0 && rule.app_id == ctx.app_id && rule.cat_id == ctx.app_cat_id;
                const bool by_domain = rule.app_id == 0 && rule.app_name[0] != '\0' &&
                                       __jorn_domain_match(ctx.app_name, rule.app_name) != 0;
                if (by_id || by_domain) {
                    wanted = &rule;
                    break;
                }
            }
            fits += wanted != nullptr;
            ASSERT_EQ(__jorn_policy_match(&ctx, policy), wanted) << ctx.app_name;
        }
    }
    EXPECT_GT(fits, 500u);
}

TEST_F(ArcPolicy, OutcomeBySides) {
    add_policy(1, {domain_rule("deny-me", true)});
    add_policy(2, {domain_rule("deny-me"), domain_rule("only-dst", true)});
    add_bare_utp(3);
    add_bare_utp(64);
    const struct {
        const char *name;
        uint32_t src, dst;
        uint16_t action;
        uint32_t utp, from_src;
    } rows[] = {
        {"deny-me", 1, 2, ARC_ACTION_BLOCK, 1, 1}, // the source side comes first
        {"deny-me", 2, 1, ARC_ACTION_QOS, 2, 1},        {"only-dst", 1, 2, ARC_ACTION_BLOCK, 2, 0},
        {"other", 1, 0, ARC_ACTION_NO_POLICY, 0, 0}, // the last look-up found no entry
        {"other", 0, 1, ARC_ACTION_ALLOW, 0, 0},        {"other", 1, 3, ARC_ACTION_ALLOW, 0, 0},
        {"deny-me", 64, 0, ARC_ACTION_NO_POLICY, 0, 0},
    };
    for (const auto &row : rows) {
        pkt_ctx ctx = named(row.name);
        ctx.src_utp_id = row.src;
        ctx.dst_utp_id = row.dst;
        jorn_apply_arc_policy(&ctx);
        EXPECT_EQ(ctx.arc_action, row.action) << row.name << ' ' << row.src << ' ' << row.dst;
        EXPECT_EQ(ctx.arc_match_utp, row.utp);
        EXPECT_EQ(ctx.arc_match_src, row.from_src);
    }
    jorn_state.settings.arc_enabled = 0;
    pkt_ctx ctx = named("deny-me");
    ctx.src_utp_id = 1;
    jorn_apply_arc_policy(&ctx);
    EXPECT_EQ(ctx.arc_action, ARC_ACTION_NO_POLICY);
    EXPECT_EQ(ctx.arc_cfg, nullptr);
}

TEST_F(ArcPolicy, IdsFitOnlyTogether) {
    const arc_policy *policy = add_policy(1, {id_rule(5, 0), id_rule(5, 2)});
    const pkt_ctx other_category = named("", 5, 1);
    EXPECT_EQ(__jorn_policy_match(&other_category, policy), nullptr);
    const pkt_ctx second = named("", 5, 2);
    EXPECT_EQ(__jorn_policy_match(&second, policy), &policy->rules[1]);
}

} // namespace
