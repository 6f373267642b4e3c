// The reactor of one policy. When the policy's `configVersion` moves it programs the classification
// module with the policy's application profiles, each rule's key as its priority, and has the load
// balancer reactor, its owner, reconcile every VRF bound to the policy.
#pragma once

#include "nav/config/NavCliConfig.h"
#include "nav/types/NavStatusDir.h"
#include "platform/services/Classification.h"
#include "platform/vel/Reactor.h"

namespace Nav {

class NavLoadBalancerSm;

class NAV_EXPORT NavLoadBalancerPolicySm final : public Vel::Reactor {
  public:
    static constexpr const char* name = "NavLoadBalancerPolicySm";
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

    void handleInitialized() override;
    void handleConfigVersion();

  private:
    bool programClassification();

    Inputs in_;
    bool initialized_ = false;
    Vel::Subscription configVersion_;
};
VEL_INPUTS(NavLoadBalancerPolicySm::Inputs, name, policyEntry, policyToVrf, navStatusDir, navLbSm,
           navFeaturePolicyDir)

}  // namespace Nav
