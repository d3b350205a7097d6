#include "classify/arc_policy.h"
#include "core/state/state.h"
#include "fresh_state_fixture.h"

#include <cstring>
#include <random>

namespace {

arc_rule domain_rule(const std::string &domain, bool deny = false) {
    arc_rule rule = rule_of(domain);
    rule.deny = deny;
    return rule;
}

arc_rule id_rule(uint16_t app_id, uint16_t cat_id) {
    arc_rule rule = rule_of("by-id");
    rule.app_id = app_id;
    rule.cat_id = cat_id;
    return rule;
}

arc_policy_wire named_policy(uint32_t utp_id, const char *name, const char *uuid) {
    arc_policy_wire policy = {};
    policy.utp_id = utp_id;
    copy_text(policy.name, name);
    copy_text(policy.uuid, uuid);
    return policy;
}

int add_utp(uint32_t id, const char *uuid = "") {
    utp_entry_wire entry = {};
    entry.id = id;
    copy_text(entry.uuid, uuid);
    return jorn_process_arc_config(&entry);
}

pkt_ctx named(const std::string &name, uint16_t app_id = 0, uint16_t cat_id = 0) {
    pkt_ctx ctx = {};
    strncpy(ctx.app_name, name.c_str(), sizeof ctx.app_name - 1);
    ctx.app_id = app_id;
    ctx.app_cat_id = cat_id;
    return ctx;
}

using ArcPolicy = FreshState;

TEST(DomainMatch, Rows) {
    const std::string n59(59, 'n');
    const std::string n60(60, 'n');
    const struct {
        std::string name, domain;
        bool fits;
    } rows[] = {
        {"www.Example.COM.evil.org", "example.com", true},
        {"example.org", "example.com", false},
        {n59, n59 + ".com", true},
        {n60, n60.substr(4) + ".com", false},
        {"caf\xC3\x89", "caf\xC3\xA9", false}, // only A to Z have a case
        {n60 + "nnnn", n60 + "nnnnn", false},  // no rule is cut to fit
        {"short", "a much longer rule than the name", false},
    };
    for (const auto &row : rows)
        EXPECT_EQ(__jorn_domain_match(row.name.c_str(), row.domain.c_str()) != 0, row.fits)
            << row.name << " / " << row.domain;
}

// The index names candidates only; what it leaves out must never fit, and a policy without one is
// no different. Random names and rules of few letters make collisions and near misses common.
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
        arc_policy bare = *policy;
        bare.index = nullptr;
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
            const arc_rule *walked = __jorn_policy_match(&ctx, &bare);
            ASSERT_EQ(walked != nullptr ? policy->rules + (walked - bare.rules) : nullptr, wanted);
        }
    }
    EXPECT_GT(fits, 500u);
}

TEST_F(ArcPolicy, OutcomeBySides) {
    add_policy(1, {domain_rule("deny-me", true)});
    add_policy(2, {domain_rule("deny-me"), domain_rule("only-dst", true)});
    add_utp(3);
    const struct {
        const char *name;
        uint32_t src, dst;
        uint16_t action;
        uint32_t utp, from_src;
    } rows[] = {
        {"only-dst", 1, 2, ARC_ACTION_BLOCK, 2, 0},
        {"other", 1, 0, ARC_ACTION_NO_POLICY, 0, 0}, // the last look-up found no entry
        {"other", 0, 1, ARC_ACTION_ALLOW, 0, 0},
        {"other", 1, 3, ARC_ACTION_ALLOW, 0, 0},
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
}

TEST_F(ArcPolicy, TablesFilledInAnotherWayThanByCommands) {
    arc_policy unlisted = {};
    unlisted.rules[0] = domain_rule("deny-me", true);
    jorn_state.arc_utp_table[1].id = 2;
    jorn_state.arc_utp_table[1].policy = &unlisted;
    add_policy(1, {domain_rule("something")});
    jorn_state.arc_policy_list.tail->rules[0] = domain_rule("deny-me", true);
    settle_arc_tables();
    for (const uint32_t utp_id : {1u, 2u}) {
        pkt_ctx ctx = named("deny-me");
        ctx.src_utp_id = utp_id;
        jorn_apply_arc_policy(&ctx);
        EXPECT_EQ(ctx.arc_action, ARC_ACTION_BLOCK) << utp_id;
    }
}

TEST_F(ArcPolicy, HostilePolicyIsCutAndKeptWithoutEntry) {
    arc_policy_wire wire = {}; // of UTP 0
    memset(wire.name, 'n', sizeof wire.name);
    memset(wire.rules[0].app_name, 'a', sizeof wire.rules[0].app_name);
    const arc_policy *policy = add_policy(wire);
    EXPECT_EQ(strlen(policy->name), 64u);
    EXPECT_EQ(strlen(policy->rules[0].app_name), 63u);
    for (const auto &entry : jorn_state.arc_utp_table)
        EXPECT_EQ(entry.id, 0u);
}

TEST_F(ArcPolicy, LogFlagGoesToThePolicyOfThatExactName) {
    const arc_policy *other = add_policy(named_policy(1, "Office", "a"));
    const arc_policy *meant = add_policy(named_policy(2, "office", "b"));
    char name[68] = "office";
    jorn_process_arc_policy_log_cfg(-1, name, 0x102);
    EXPECT_EQ(other->log_enable, 0);
    EXPECT_EQ(meant->log_enable, 2);
}

} // namespace
