#include "nav/policy/NavLoadBalancerPolicySm.h"

#include "nav/policy/NavLoadBalancerSm.h"
#include "nav/policy/PolicyTrace.h"

namespace Nav {

PolicyRules rulesOf(const PolicyConfig& policy) {
    PolicyRules rules;
    rules.reserve(policy.appProfilePolicyRuleList().size() + 1);
    for (const auto& rule : policy.appProfilePolicyRuleList())
        rules.push_back(
            {{rule.ruleKey(), rule.appProfileId(), rule.lbGrpName()}, rule.appProfileName()});
    if (policy.defaultRuleCfgd() && !policy.defaultLbGrpName().empty())
        rules.push_back(
            {{NavConstants::defaultRuleKey, 0, policy.defaultLbGrpName()}, "default_app"});
    return rules;
}

NavLoadBalancerPolicySm::NavLoadBalancerPolicySm(const Inputs& inputs)
    : in_(inputs),
      configVersion_(Vel::Subscription::to<&NavLoadBalancerPolicySm::handleConfigVersion>(
          *in_.policyEntry, PolicyConfig::configVersionAttr, this)) {}

void NavLoadBalancerPolicySm::handleInitialized() {
    DUOLOG_ENTRY(policyTrace);
    if (initialized_) {
        POLICY_TRACE(8, " already initialized");
        return;
    }
    initialized_ = true;
    handleConfigVersion();
}

void NavLoadBalancerPolicySm::handleConfigVersion() {
    POLICY_TRACE(8, "configVersion: ", in_.policyEntry->configVersion());
    const U64 version = ++versions_;
    const PolicyRules rules = rulesOf(*in_.policyEntry);
    programClassification(rules, version);
    for (const L3::VrfName& vrf : in_.policyToVrf->vrf()) {
        if (isOvertaken(version)) return;
        POLICY_TRACE(8, "vrfName: ", vrf);
        in_.navLbSm->handleNavPolicyConfigVersion(vrf, in_.name, rules);
    }
}

void NavLoadBalancerPolicySm::programClassification(const PolicyRules& rules, U64 version) {
    auto& dir = *in_.navFeaturePolicyDir;
    if (auto* policy = dir.featurePolicy(in_.name)) {
        POLICY_TRACE(
            8,
            "Clear pevious entries in Classification's navFeaturePolicyDir for policy: ", in_.name);
        policy->appProfilePriorityDelAll();
    }
    POLICY_TRACE(
        8, "Program classification module with nav application profiles for policy: ", in_.name);
    bool programmed = false;
    for (const auto& [entry, appName] : rules) {
        if (isOvertaken(version)) return;
        if (entry.ruleKey == NavConstants::defaultRuleKey) continue;
        POLICY_TRACE(8, "Add ruleKey: ", entry.ruleKey, " appProfileId: ", appName);
        dir.featurePolicyIs(in_.name).appProfilePriorityIs(entry.ruleKey, appName);
        programmed = true;
    }
    if (programmed && !isOvertaken(version)) dir.featurePolicyIs(in_.name).versionInc(1);
}

}  // namespace Nav
