// Load-balance ids alone: the tests play the policies, which write the rules of a VRF, and path
// resolution, which writes the paths of a site.
#include <algorithm>

#include "nav/lb/NavLbSm.h"
#include "tests/nav/NavFixture.h"

namespace Nav::Test {
namespace {

const char* const s1 = "10.255.0.1";
const char* const s2 = "10.255.0.2";
const char* const s3 = "10.255.0.3";

// VRFs red (1) and blue (2).
class LoadBalance : public NavFixture {
  protected:
    LoadBalance() {
        db.vrfNameToIdIs("red", 1);
        db.vrfNameToIdIs("blue", 2);
    }

    void start(U16 maxLbIndex = 1023) {
        lb.is({in.navStatusDir, in.siteGroupStatus, in.cliConfig, db, status, maxLbIndex});
    }
    void rule(const char* vrf, U32 ruleKey, U32 app, const char* profile) {
        in.navStatusDir->navRuleStatusIs(vrf).navRuleEntryIs({ruleKey, app, profile});
    }
    void noRule(const char* vrf, U32 ruleKey, U32 app, const char* profile) {
        in.navStatusDir->navRuleStatus(vrf)->navRuleEntryDel({ruleKey, app, profile});
    }
    void list(const char* profile, const char* group, U32 priority) {
        cli.loadBalanceProfileIs(profile).pathGroupPriorityIs(group, priority);
    }
    void path(const char* group, const char* site, U32 index) {
        in.siteGroupStatus->siteGroupStatusEntryIs({group, ip(site)}).pathIndexEntryIs(index);
    }
    LbProfileStatusEntry* entry(U32 app, U32 vrfId = 1, const char* site = s1) {
        return status.lbProfileStatusEntry({ip(site), app, vrfId});
    }
    // The members as index/priority/group.
    static std::string members(const LbProfileStatusEntry& entry) {
        std::map<U32, std::string> sorted;
        for (const auto& [index, priority, group] : entry.pathEntry())
            sorted[index] = "/" + std::to_string(priority) + "/" + std::string(group);
        std::string text;
        for (const auto& [index, rest] : sorted) text += " " + std::to_string(index) + rest;
        return text;
    }
    // Id, generation and members of a key, as in "1 gen 2: 5/1/wan".
    std::string show(U32 app, U32 vrfId = 1, const char* site = s1) {
        const auto* key = entry(app, vrfId, site);
        if (!key) return "-";
        return std::to_string(key->lbIndex()) + " gen " + std::to_string(key->genId()) + ":" +
               members(*key);
    }
    const Vel::Ptr<NavDb> ownDb = Vel::make<NavDb>("NavDb");
    NavDb& db = *ownDb;
    LbProfileStatus& status = in.navStatusDir->navLbProfileStatusIs("navLbProfileDir");
    Vel::Owned<LbProfileSm> lb;
};

TEST_F(LoadBalance, ReleasedIdsQueueBehindAllThatAreFree) {
    // The id that a new rule of a new application gets.
    const auto next = [&](U32 app) -> std::string {
        try {
            rule("red", app, app, "gold");
        } catch (const AssertionFailed& e) {
            return e.what();
        }
        return std::to_string(entry(app)->lbIndex());
    };
    list("gold", "wan", 1), path("wan", s1, 1);
    start(5);
    using Ids = std::vector<std::string>;
    EXPECT_EQ((Ids{next(1), next(2), next(3)}), (Ids{"1", "2", "3"}));
    noRule("red", 2, 2, "gold");
    EXPECT_EQ(next(4), "4");
    noRule("red", 1, 1, "gold");
    EXPECT_EQ((Ids{next(5), next(6), next(7)}), (Ids{"5", "2", "1"})) << "in order of release";
    in.siteGroupStatus->siteGroupStatusEntryDel({"wan", ip(s1)}), path("wan", s1, 1);
    EXPECT_EQ(next(8), "freeLbIds()") << "a site that came back keeps its ids";
}

TEST_F(LoadBalance, AKeyThatNoRuleWantsGivesUpItsId) {
    list("gold", "wan", 1), list("silver", "lte", 1);
    path("wan", s1, 1), path("lte", s1, 2);
    start(1);
    rule("red", 1, 1, "gold");
    cli.loadBalanceProfile("gold")->pathGroupPriorityDel("wan");
    rule("red", 2, 2, "silver");
    EXPECT_TRUE(!entry(1) && entry(2));
}

// As many keys as ids are needed, of the site that vanished first.
TEST_F(LoadBalance, VanishedSitesGiveUpTheirIds) {
    const auto has = [&](const char* site) {
        return bool(entry(1, 1, site)) + bool(entry(2, 1, site));
    };
    const auto goes = [&](const char* site) {
        in.siteGroupStatus->siteGroupStatusEntryDel({"wan", ip(site)});
    };
    list("gold", "wan", 1), rule("red", 1, 1, "gold"), rule("red", 2, 2, "gold");
    start(4);
    path("wan", s1, 1), path("wan", s2, 2), goes(s2), goes(s1), path("wan", s3, 3);
    EXPECT_TRUE(has(s1) == 2 && has(s2) == 0 && has(s3) == 2);
    rule("red", 3, 3, "gold");
    EXPECT_TRUE(has(s1) == 1 && has(s3) == 2 && entry(3, 1, s3));
}

TEST_F(LoadBalance, GenerationCountsOncePerBatchAndOncePerPath) {
    start();
    list("gold", "wan", 1), list("gold", "lte", 2), list("silver", "wan", 3);
    path("wan", s1, 1), path("wan", s1, 2), path("lte", s1, 3), path("wan", s2, 4);
    in.siteGroupStatus->siteGroupStatusEntryIs({"lte", ip(s2)});
    rule("red", 10, 7, "gold"), rule("red", 20, 8, "silver"), rule("blue", 10, 7, "gold");
    EXPECT_EQ(show(7), "1 gen 2: 1/1/wan 2/1/wan 3/2/lte") << "one batch for each group";
    EXPECT_EQ(show(7, 1, s2), "2 gen 1: 4/1/wan") << "none for a group without paths";
    EXPECT_EQ(show(8), "3 gen 2: 1/3/wan 2/3/wan") << "and once for each path of another group";
    EXPECT_EQ(show(7, 2), "5 gen 2: 1/1/wan 2/1/wan 3/2/lte");

    capture("lb");
    path("lte", s1, 5);
    EXPECT_EQ(show(7), "1 gen 3: 1/1/wan 2/1/wan 3/2/lte 5/2/lte");
    EXPECT_EQ(show(7, 2), "5 gen 3: 1/1/wan 2/1/wan 3/2/lte 5/2/lte");
    const std::string key = "LbKey:  ( Peer Ip: 10.255.0.1 AppProfileId: 7 vrfId: 2 )";
    for (const std::string& line :
         {key, key + " lbName: gold pgName: lte pathIndex: 5 priority: 2",
          std::string("Add path, SiteIp: 10.255.0.1 App Profile Id: 7 Vrf Id: 2")})
        EXPECT_TRUE(traced(line)) << line;
    list("gold", "lte", 9);
    EXPECT_EQ(show(7), "1 gen 5: 1/1/wan 2/1/wan 3/9/lte 5/9/lte");
    cli.loadBalanceProfile("gold")->pathGroupPriorityDel("lte");
    EXPECT_EQ(show(7), "1 gen 8: 1/1/wan 2/1/wan") << "two paths go, a batch is written";
    in.siteGroupStatus->siteGroupStatusEntryDel({"wan", ip(s1)});
    EXPECT_EQ(show(7), "1 gen 10:") << "the id stays";
    entry(7)->genIdIs(0xFFFFFFFF);
    path("wan", s1, 2);
    EXPECT_EQ(show(7), "1 gen 0: 2/1/wan");

    // What changes nothing counts too, but a removal makes no key.
    lb->updateLbIdPath({ip(s1), 7, 1}, "gold", "wan", 77, true);
    lb->updateLbIdPath({ip(s1), 99, 1}, "gold", "wan", 2, true);
    lb->addLbIdPath({ip(s1), 7, 1}, "gold", "unlisted", 78);
    EXPECT_EQ(show(7) + show(99), "1 gen 1: 2/1/wan 78/0/unlisted-");
}

// Writes down in which order the constraints and generations of some keys change.
struct Log {
    void latency() { text += 'c'; }
    void generation() { text += 'g'; }
    std::string text;
};

TEST_F(LoadBalance, ConstraintsReachEveryKeyBeforeAnyGeneration) {
    start();
    list("gold", "wan", 1), list("silver", "wan", 1), path("wan", s1, 1), path("wan", s2, 2);
    rule("red", 10, 7, "gold"), rule("blue", 10, 7, "gold"), rule("red", 20, 8, "silver");
    Log log;
    std::vector<Vel::Subscription> watched;
    for (LbProfileStatusEntry& key : status.lbProfileStatusEntry()) {
        using Entry = LbProfileStatusEntry;
        watched.push_back(Vel::Subscription::to<&Log::latency>(key, Entry::latencyAttr, &log));
        watched.push_back(Vel::Subscription::to<&Log::generation>(key, Entry::genIdAttr, &log));
    }
    LoadBalanceProfile& gold = *cli.loadBalanceProfile("gold");
    gold.latencyIs(20);
    EXPECT_EQ(log.text, "ccccgggg");
}

TEST_F(LoadBalance, RulesOfOneApplicationShareAKey) {
    list("gold", "wan", 1), list("silver", "wan", 5), list("silver", "lte", 6);
    path("wan", s1, 1), path("lte", s1, 3);
    start(1);
    rule("red", 20, 7, "silver"), rule("red", 10, 7, "gold");
    cli.loadBalanceProfile("silver")->latencyIs(20);
    in.siteGroupStatus->siteGroupStatusEntryDel({"wan", ip(s1)});
    EXPECT_EQ(entry(7)->latency(), 20U) << "the first rule has no group of the site any more";
    path("wan", s1, 1);
    EXPECT_EQ(entry(7)->latency(), 0xFFFFFFFF);
    noRule("red", 10, 7, "gold"), rule("red", 30, 7, "silver");
    entry(7)->genIdIs(0);
    cli.loadBalanceProfile("silver")->jitterIs(1);
    EXPECT_EQ(show(7), "1 gen 1: 1/5/wan 3/6/lte") << "rules that name one profile count as one";
}

}  // namespace
}  // namespace Nav::Test
