// The reactor of one policy. When the policy's `configVersion` changes it programs the
// classification module with the policy's application profiles, with each rule's key as priority,
// and makes the load balancer reactor, its owner, reconcile every VRF bound to the policy.
//
// A version is programmed with the rules at the time when it is raised. If a subscriber raises the
// version again meanwhile, the newer rules are programmed; if it deletes the policy, the owner
// removes what was programmed and releases this reactor. In both cases programming the older
// version stops where it is.
#pragma once

#include <vector>

#include "nav/config/NavCliConfig.h"
#include "nav/types/NavStatusDir.h"
#include "platform/services/Classification.h"
#include "platform/vel/Reactor.h"

namespace Nav {

class NavLoadBalancerSm;

struct PolicyRule {
    NavRuleEntry entry;
    Vel::String appName;
};
using PolicyRules = std::vector<PolicyRule>;
// The rules of a policy in the order of their keys; the default rule, if configured, is last.
PolicyRules rulesOf(const PolicyConfig& policy);

class NAV_EXPORT NavLoadBalancerPolicySm final : public Vel::Reactor {
  public:
    static constexpr std::string_view name = "Nav::NavLoadBalancerPolicySm";
    struct Inputs {
        Vel::Name name;
        Vel::Input<PolicyConfig> policyEntry;  // read
        Vel::Input<PolicyToVrf> policyToVrf;   // read
        Vel::Input<NavStatusDir> navStatusDir;
        NavLoadBalancerSm* navLbSm = nullptr;  // the owner
        Vel::Input<Classification::FeaturePolicyDir> navFeaturePolicyDir;
    };

    explicit NavLoadBalancerPolicySm(const Inputs& inputs);
    const Inputs& inputs() const { return in_; }

    bool initialized() const { return initialized_; }

    void handleInitialized() override;
    // The policy's configVersion changed.
    void handleConfigVersion();

  private:
    void programClassification(const PolicyRules& rules, U64 version);
    bool isOvertaken(U64 version) const { return gone() || versions_ != version; }

    Inputs in_;
    bool initialized_ = false;
    U64 versions_ = 0;  // number of versions whose programming has begun
    Vel::Subscription configVersion_;
};
VEL_INPUTS(NavLoadBalancerPolicySm::Inputs, name, policyEntry, policyToVrf, navStatusDir, navLbSm,
           navFeaturePolicyDir)

}  // namespace Nav
