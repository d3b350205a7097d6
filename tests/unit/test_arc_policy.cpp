#include "classify/arc_policy.h"
#include "core/state/state.h"
#include "fresh_state_fixture.h"

#include <cstring>

namespace {

arc_rule domain_rule(const std::string &domain, bool deny = false) {
    arc_rule rule = rule_of(domain);
    rule.deny = deny;
    return rule;
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

} // namespace
