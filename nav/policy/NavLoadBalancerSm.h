// The load balancer reactor: which VRF is bound to which policy, and what follows from it.
//
// A VRF is bound while its binding exists and names a policy, that policy exists, and the VRF's id
// is known (0 counts only for the VRF "default"). For each bound VRF the reactor keeps its rule
// status (which load-balance ids are made for), the printable (VRF, application) names, the
// policy's list of VRFs and the policy that the classification module applies to it.
//
// The container owns the one instance. It owns a policy reactor per configured policy, which calls
// back `handleNavPolicyConfigVersion` for each VRF bound to the policy when a change of the policy
// is complete. Everything published goes when it is cleaned up.
#pragma once

#include <set>
#include <unordered_map>

#include "nav/config/NavCliConfig.h"
#include "nav/policy/NavLoadBalancerPolicySm.h"
#include "nav/types/NavDb.h"
#include "nav/types/NavStatusDir.h"
#include "platform/services/Classification.h"
#include "platform/services/Routing.h"
#include "platform/vel/Reactor.h"

namespace Nav {

class NAV_EXPORT NavLoadBalancerSm final : public Vel::Reactor {
  public:
    static constexpr const char* name = "NavLoadBalancerSm";
    struct Inputs {
        Vel::Input<Routing::Hardware::RouteStatus> routingHwRouteStatus;  // read
        Vel::Input<NavCliConfig> cliConfig;                               // read
        Vel::Input<NavDb> navDb;
        Vel::Input<NavStatusDir> navStatusDir;
        Vel::Input<Classification::FeaturePolicyDir> navFeaturePolicyDir;
    };

    explicit NavLoadBalancerSm(const Inputs& inputs);
    const Inputs& inputs() const { return in_; }

    void handleInitialized() override;
    void doCleanup() override;

    // A policy was added or removed; without argument, for every policy there is.
    void handleNavPolicyConfig(const Vel::Name& policyName);
    void handleNavPolicyConfig();
    // Binds the VRF to the policy, or unbinds it.
    void handleNavVrfPolicyMapping(const L3::VrfName& vrf, const Vel::String& policyName);
    // Brings the rule status of a bound VRF in line with the policy's rules as they are now.
    void handleNavPolicyConfigVersion(const L3::VrfName& vrf, const Vel::String& policyName);

  private:
    class VelVrfStatus;
    class VelVrfConfig;

    // What is published for a bound VRF.
    struct Binding {
        Vel::String policyName;
        std::set<VrfAppKey> apps;
    };

    void handleVrfId(const L3::VrfName& vrf, U32 vrfId);
    void handleVrfDel(const L3::VrfName& vrf, U32 vrfId);
    void bind(const L3::VrfName& vrf, PolicyConfig& policy);
    void unbind(const L3::VrfName& vrf, const Vel::String& policyName);
    void leavePolicy(const L3::VrfName& vrf);
    void removeVrfApps(const L3::VrfName& vrf);
    void removeRuleStatus(const L3::VrfName& vrf);
    void deletePolicy(const Vel::Name& policyName);
    void removeStaleRules(NavRuleStatus& rules, const PolicyConfig& policy);
    void addRule(NavRuleStatus& rules, const NavRuleEntry& entry, const Vel::String& appName);
    void dropLeftovers();

    Inputs in_;
    bool initialized_ = false;
    std::unordered_map<L3::VrfName, U32> vrfNameToId_;  // VRFs with an accepted id
    std::unordered_map<L3::VrfName, Binding> vrfToPolicy_;
    std::unordered_map<Vel::String, std::set<L3::VrfName>> wantedBy_;  // bindings by policy named
    std::unordered_map<Vel::String, Vel::Ptr<PolicyToVrf>> policyToVrf_;
    Vel::ReactorMap<Vel::Name, NavLoadBalancerPolicySm> policySm_;
    Vel::Subscription policies_;
    Vel::EntryReactorsOf<VelVrfStatus, decltype(Routing::Hardware::RouteStatus::vrfStatusAttr)>
        vrfStatus_;
    Vel::EntryReactorsOf<VelVrfConfig, decltype(NavCliConfig::vrfConfigAttr)> navVrfConfig_;
};
VEL_INPUTS(NavLoadBalancerSm::Inputs, routingHwRouteStatus, cliConfig, navDb, navStatusDir,
           navFeaturePolicyDir)

}  // namespace Nav
