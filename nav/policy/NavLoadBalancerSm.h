// The load balancer reactor: binds VRFs to policies and publishes what follows from the bindings.
//
// A VRF is bound while its binding exists and names a policy, that policy exists, and the VRF's id
// is known (0 is a valid id only for the VRF "default"). For each bound VRF the reactor maintains
// its rule status (from which load-balance ids are allocated), the printable (VRF, application)
// names, the policy's list of VRFs, and the policy that the classification module applies to the
// VRF.
//
// Owned by the container, which has one. It owns one policy reactor per configured policy, which
// calls `handleNavPolicyConfigVersion` for each VRF bound to the policy when a change of the policy
// is complete. doCleanup() removes everything published.
//
// Nested changes: a subscriber may change any input while this reactor publishes. The reaction to
// that change runs first and to its end. A handler therefore checks after each notification whether
// the VRF is still to be bound as it decided, and stops if a newer reaction has decided otherwise.
#pragma once

#include <map>
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
    static constexpr std::string_view name = "Nav::NavLoadBalancerSm";
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

    bool initialized() const { return initialized_; }
    // The accepted id of a VRF; null if it has none.
    const U32* vrfNameToId(const L3::VrfName& vrf) const;
    // The VRFs bound to a configured policy; null for any other name.
    PolicyToVrf* policyToVrf(const Vel::String& policyName) const;
    // The reactor of a configured policy; null for any other name.
    NavLoadBalancerPolicySm* policySm(const Vel::Name& policyName) const {
        return policySm_(policyName);
    }

    // A policy was added or removed; without argument, for every policy present.
    void handleNavPolicyConfig(const Vel::Name& policyName);
    void handleNavPolicyConfig();
    // Binds the VRF to the policy, or unbinds it.
    void handleNavVrfPolicyMapping(const L3::VrfName& vrf, const Vel::String& policyName);
    // Brings the rule status of a bound VRF in line with the policy's rules as they are now.
    void handleNavPolicyConfigVersion(const L3::VrfName& vrf, const Vel::String& policyName);
    // The same with the rules of the version that is being programmed.
    void handleNavPolicyConfigVersion(const L3::VrfName& vrf, const Vel::String& policyName,
                                      const PolicyRules& rules);

  private:
    class VelVrfStatus;
    class VelVrfConfig;

    // What is published for a bound VRF.
    struct Binding {
        Vel::String policyName;
        std::map<VrfAppKey, Vel::String> apps;  // names by key
        U64 reconciliation = 0;                 // the last one begun, of reconciliations_
    };

    bool isBoundTo(const L3::VrfName& vrf, const Vel::String& policyName) const;
    bool isBound(const L3::VrfName& vrf) const;
    PolicyToVrf& policyToVrfIs(const Vel::String& policyName);
    void vrfIdIs(const L3::VrfName& vrf, U32 vrfId);
    void vrfIdDel(const L3::VrfName& vrf);
    void mapToConfigured(const L3::VrfName& vrf);
    void bind(const L3::VrfName& vrf, const Vel::String& policyName);
    void unbind(const L3::VrfName& vrf, const Vel::String& policyName);
    void leavePolicy(const L3::VrfName& vrf);
    void removeVrfApp(const L3::VrfName& vrf, const VrfAppKey& key);
    void removeVrfApps(const L3::VrfName& vrf);
    void removeRuleStatus(const L3::VrfName& vrf);
    void deletePolicy(const Vel::Name& policyName);
    void dropLeftovers();

    Inputs in_;
    bool initialized_ = false;                          // false again once cleaned up
    std::unordered_map<L3::VrfName, U32> vrfNameToId_;  // VRFs with an accepted id
    // One for each VRF that has a rule status.
    std::unordered_map<L3::VrfName, Binding> vrfToPolicy_;
    U64 reconciliations_ = 0;  // how many have begun
    // The VRFs whose configuration names a policy, whether it exists or not. No set is empty.
    std::unordered_map<Vel::String, std::set<L3::VrfName>> wantedBy_;
    std::unordered_map<Vel::String, Vel::Ptr<PolicyToVrf>> policyToVrf_;  // of each policy
    Vel::ReactorMap<Vel::Name, NavLoadBalancerPolicySm> policySm_;        // of each policy
    Vel::Subscription policies_;
    Vel::EntryReactorsOf<VelVrfStatus, decltype(Routing::Hardware::RouteStatus::vrfStatusAttr)>
        vrfStatus_;
    Vel::EntryReactorsOf<VelVrfConfig, decltype(NavCliConfig::vrfConfigAttr)> navVrfConfig_;
};
VEL_INPUTS(NavLoadBalancerSm::Inputs, routingHwRouteStatus, cliConfig, navDb, navStatusDir,
           navFeaturePolicyDir)

}  // namespace Nav
