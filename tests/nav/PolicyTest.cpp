// Policies and the VRFs bound to them, in a whole container: what is classified, which rules a VRF
// has, and the load-balance ids made for them.
#include <algorithm>

#include "tests/nav/NavFixture.h"

namespace Nav::Test {
namespace {

class PolicyTest : public NavFixture {
  protected:
    PolicyConfig& policy(const std::string& name) { return cli.policyConfigIs(name); }
    void rule(const std::string& name, U32 ruleKey, U32 app, const char* appName,
              const char* profile = "gold") {
        auto& rule = policy(name).appProfilePolicyRuleListIs(ruleKey);
        rule.appProfileIdIs(app);
        rule.appProfileNameIs(appName);
        rule.lbGrpNameIs(profile);
    }
    void done(const std::string& name) { policy(name).configVersionInc(1); }
    void bindTo(const std::string& vrf, const std::string& name) {
        cli.vrfConfigIs(vrf).policyNameIs(name);
    }

    // Version and priorities of a feature policy, as in "v1 10=voice".
    std::string classified(const char* name) {
        const auto* feature = in.navFeaturePolicyDir->featurePolicy(name);
        if (!feature) return "-";
        std::string text = "v" + std::to_string(feature->version());
        for (const auto& [key, app] : feature->appProfilePriority())  // as programmed
            text += " " + std::to_string(key) + "=" + std::string(app);
        return text;
    }
    // How many lines of the trace ended so since the last call.
    long traced(std::string_view message) {
        const long n = std::count_if(traces.begin(), traces.end(), [&](const std::string& line) {
            return line.ends_with("): " + std::string(message));
        });
        traces.clear();
        return n;
    }
    std::vector<std::string>& traces = capture("policy");
};

TEST_F(PolicyTest, ClassificationTakesEachVersionAsOneChange) {
    const char* const clear =
        "Clear pevious entries in Classification's navFeaturePolicyDir for policy: p";
    start();
    policy("p").defaultRuleCfgdIs(true), policy("p").defaultLbGrpNameIs("gold"), done("p");
    rule("p", 30, 3, "bulk"), rule("p", 10, 1, "voice"), rule("p", 20, 2, "video");
    EXPECT_EQ(classified("p"), "-") << "nothing before the change is finished, never the default";
    done("p");
    EXPECT_EQ(traced(clear), 0);
    EXPECT_EQ(classified("p"), "v1 10=voice 20=video 30=bulk");
    done("p");
    EXPECT_EQ(traced(clear), 1);
    policy("p").appProfilePolicyRuleListDel(20), done("p");
    EXPECT_EQ(traced("Add ruleKey: 30 appProfileId: bulk"), 1);
    EXPECT_EQ(classified("p"), "v3 10=voice 30=bulk");
    policy("p").appProfilePolicyRuleListDelAll(), done("p");
    EXPECT_EQ(traced("Program classification module with nav application profiles for policy: p"),
              1);
    EXPECT_EQ(classified("p"), "v3") << "an empty one stays";
    cli.policyConfigDel("p");
    EXPECT_EQ(traced("Delete navFeaturePolicyDir entry for policy: p"), 1);
}

TEST_F(PolicyTest, WhatIsNotThereBindsNothing) {
    start();
    rule("p", 10, 1, "voice"), done("p"), policy("q");
    bindTo("red", "p"), bindTo("blue", "p");
    EXPECT_EQ(traced("Deleting policyToVrfEntry & navRuleStatus"), 2);
    vrfId("red", 0);
    EXPECT_EQ(traced("Skip mapping from red to 0"), 1);
    vrfId("red", 1);
    root->navContainer()->navLoadBalancerSm()->handleNavPolicyConfigVersion("red", "none");
    EXPECT_EQ(traced("No policyEntry for policyName: none"), 1);
    vrfId("red", 0);
    EXPECT_EQ(traced("Deleting navRuleStatus for vrf"), 1);
}

TEST_F(PolicyTest, ChangesInsideNotificationsAreFollowed) {
    {
        On again(cli, NavCliConfig::policyConfigAttr, [&] { policy("p"); });  // before the reactor
        start();
        vrfId("red", 1), bindTo("red", "p");
        rule("p", 10, 1, "voice"), done("p");
        cli.policyConfigDel("p");
        EXPECT_EQ(classified("p"), "-");
        rule("p", 20, 2, "video"), done("p");
        EXPECT_EQ(classified("p"), "v1 20=video");
    }
    Classification::FeaturePolicyDir& dir = *in.navFeaturePolicyDir;
    policy("q"), rule("q", 10, 1, "voice"), rule("q", 20, 2, "video");
    {
        On gone(dir, Classification::FeaturePolicyDir::featurePolicyAttr,
                [&] { cli.policyConfigDel("q"); });
        done("q");
        EXPECT_EQ(classified("q"), "-") << "deleted while it was programmed";
    }
    NavRuleStatus& red = *in.navStatusDir->navRuleStatus("red");
    rule("p", 30, 3, "bulk"), done("p");
    On newer(red, NavRuleStatus::navRuleEntryAttr, [&] { rule("p", 30, 3, "bulk"), done("p"); });
    policy("p").appProfilePolicyRuleListDelAll(), done("p");
    EXPECT_TRUE(red.navRuleEntryHas({30, 3, "gold"})) << "wanted again while rule 20 was removed";
}

TEST_F(PolicyTest, ApplicationsOfASharedIdGoToTheOtherVrf) {
    auto& applied = in.navFeaturePolicyDir->appliedPolicyIs(Classification::vrfTarget);
    applied.policyForTargetIs("green", "p");  // by an earlier process
    start();
    EXPECT_FALSE(applied.policyForTarget("green"));
    rule("p", 10, 1, "voice"), done("p");
    bindTo("red", "p"), bindTo("blue", "p");
    vrfId("red", 5), vrfId("blue", 5);
    vrfId("blue", 6);
    EXPECT_TRUE(navDb().vrfApp({5, 1})->vrfName == "red" && navDb().vrfApp({6, 1}));
}

// The rules of a VRF that were told to have changed.
struct Told {
    void handle(const NavRuleEntry& entry) { entries.push_back(entry); }
    std::vector<NavRuleEntry> entries;
};

TEST_F(PolicyTest, AVersionTouchesOnlyTheRulesThatChanged) {
    start();
    for (const U32 key : {10, 20, 30}) rule("p", key, key / 10, "app");
    policy("p").defaultRuleCfgdIs(true);
    vrfId("red", 1), bindTo("red", "p");
    EXPECT_EQ(in.navStatusDir->navRuleStatus("red")->navRuleEntry().size(), 3u) << "no default";
    Told told;
    const auto subscription = Vel::Subscription::to<&Told::handle>(
        *in.navStatusDir->navRuleStatus("red"), NavRuleStatus::navRuleEntryAttr, &told);
    using Entries = std::vector<NavRuleEntry>;
    const auto changed = [&] {
        EXPECT_TRUE(told.entries.empty()) << "before the change is finished";
        done("p");
        return std::exchange(told.entries, {});
    };
    const Entries byDefault{{0xFFFFFFFE, 0, "silver"}};
    policy("p").defaultLbGrpNameIs("silver");
    EXPECT_EQ(changed(), byDefault);
    rule("p", 20, 2, "app", "silver");
    EXPECT_EQ(changed(), (Entries{{20, 2, "gold"}, {20, 2, "silver"}}));
    rule("p", 30, 1, "same"), rule("p", 10, 1, "renamed");
    EXPECT_EQ(changed(), (Entries{{30, 3, "gold"}, {30, 1, "gold"}}));
    policy("p").appProfilePolicyRuleListDel(30);
    EXPECT_EQ(changed(), (Entries{{30, 1, "gold"}}));
    EXPECT_TRUE(changed().empty());
}

}  // namespace
}  // namespace Nav::Test
