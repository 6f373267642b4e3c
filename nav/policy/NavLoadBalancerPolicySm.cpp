#include "nav/policy/NavLoadBalancerPolicySm.h"

#include "nav/policy/NavLoadBalancerSm.h"
#include "nav/policy/PolicyTrace.h"

namespace Nav {

NavLoadBalancerPolicySm::NavLoadBalancerPolicySm(const Inputs& inputs)
    : in_(inputs),
      configVersion_(Vel::Subscription::to<&NavLoadBalancerPolicySm::handleConfigVersion>(
          *in_.policyEntry, PolicyConfig::configVersionAttr, this)) {}

void NavLoadBalancerPolicySm::handleInitialized() {
    if (initialized_) {
        POLICY_TRACE(8, " already initialized");
        return;
    }
    initialized_ = true;
    handleConfigVersion();
}

void NavLoadBalancerPolicySm::handleConfigVersion() {
    POLICY_TRACE(8, "configVersion: ", in_.policyEntry->configVersion());
    if (programClassification()) in_.navFeaturePolicyDir->featurePolicyIs(in_.name).versionInc(1);
    for (const L3::VrfName& vrf : in_.policyToVrf->vrf()) {
        POLICY_TRACE(8, "vrfName: ", vrf);
        in_.navLbSm->handleNavPolicyConfigVersion(vrf, in_.name);
    }
}

// Returns whether there was anything to program.
bool NavLoadBalancerPolicySm::programClassification() {
    auto& dir = *in_.navFeaturePolicyDir;
    if (auto* policy = dir.featurePolicy(in_.name)) {
        POLICY_TRACE(
            8,
            "Clear pevious entries in Classification's navFeaturePolicyDir for policy: ", in_.name);
        policy->appProfilePriorityDelAll();
    }
    POLICY_TRACE(
        8, "Program classification module with nav application profiles for policy: ", in_.name);
    const auto& rules = in_.policyEntry->appProfilePolicyRuleList();
    for (const AppProfilePolicyRuleConfig& rule : rules) {
        POLICY_TRACE(8, "Add ruleKey: ", rule.ruleKey(), " appProfileId: ", rule.appProfileName());
        dir.featurePolicyIs(in_.name).appProfilePriorityIs(rule.ruleKey(), rule.appProfileName());
    }
    return !rules.empty();
}

}  // namespace Nav
