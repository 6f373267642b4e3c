// Policies and the VRFs bound to them, in a whole container: what is classified, which rules a VRF
// has, and the load-balance ids made for them.
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

    // What a feature policy has in the order in which it was programmed, as in "10=voice".
    std::string classified(const char* name) {
        const auto* feature = in.navFeaturePolicyDir->featurePolicy(name);
        if (!feature) return "-";
        std::string text;
        for (const auto& [key, app] : feature->appProfilePriority())
            text += std::to_string(key) + "=" + std::string(app) + " ";
        return text;
    }
};

TEST_F(PolicyTest, TracesWhatItProgramsAndBinds) {
    capture("policy");
    start();
    rule("p", 30, 3, "bulk"), rule("p", 10, 1, "voice"), rule("p", 20, 2, "video"), done("p");
    EXPECT_EQ(classified("p"), "10=voice 20=video 30=bulk ") << "in the order of the rules";
    policy("p").appProfilePolicyRuleListDel(20), done("p");
    EXPECT_EQ(classified("p"), "10=voice 30=bulk ");
    bindTo("red", "p"), bindTo("blue", "p");
    vrfId("red", 0), vrfId("red", 1), vrfId("red", 0);
    root->navContainer()->navLoadBalancerSm()->handleNavPolicyConfigVersion("red", "none");
    cli.policyConfigDel("p");
    for (const std::string message :
         {"Clear pevious entries in Classification's navFeaturePolicyDir for policy: p",
          "Add ruleKey: 30 appProfileId: bulk",
          "Program classification module with nav application profiles for policy: p",
          "Delete navFeaturePolicyDir entry for policy: p",
          "Deleting policyToVrfEntry & navRuleStatus", "Skip mapping from red to 0",
          "No policyEntry for policyName: none", "Deleting navRuleStatus for vrf"})
        EXPECT_TRUE(traced("): " + message)) << message;
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
        EXPECT_EQ(classified("p"), "20=video ");
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
