#include "nav/policy/NavLoadBalancerSm.h"

#include <algorithm>

#include "nav/policy/PolicyTrace.h"

namespace Nav {

using Classification::vrfTarget;

// Follows the hardware's id of one VRF.
class NavLoadBalancerSm::VelVrfStatus : public Vel::Object {
  public:
    VelVrfStatus(NavLoadBalancerSm& owner, Routing::Hardware::VrfStatus& status)
        : owner_(owner),
          status_(status),
          vrfId_(Vel::Subscription::to<&VelVrfStatus::handleVrfId>(
              status, Routing::Hardware::VrfStatus::vrfIdAttr, this)) {}

    void handleInitialized() {
        DUOLOG_ENTRY(policyTrace);
        POLICY_TRACE(7, "vrfName: ", status_.vrfName(), ", vrfId: ", status_.vrfId());
        if (!owner_.initialized_) {
            POLICY_TRACE(8, "navLoadBalancerSm not initialized");
            return;
        }
        initialized_ = true;
        handleVrfId();
    }
    void handleVrfId() {
        const L3::VrfName& vrf = status_.vrfName();
        POLICY_TRACE(8, "vrfName: ", vrf, " vrfId: ", status_.vrfId());
        if (!initialized_) return;
        if (Routing::Hardware::knownVrfId(vrf, status_.vrfId()))
            return owner_.vrfIdIs(vrf, status_.vrfId());
        POLICY_TRACE(8, "Skip mapping from ", vrf, " to ", status_.vrfId());
        if (owner_.vrfNameToId(vrf)) owner_.vrfIdDel(vrf);  // the id was withdrawn
    }
    void handleVrfDel() {
        POLICY_TRACE(8, "vrfName: ", status_.vrfName(), " vrfId: ", status_.vrfId());
        if (!initialized_) return;
        owner_.vrfIdDel(status_.vrfName());
    }
    void handleDelete() { handleVrfDel(); }

  private:
    NavLoadBalancerSm& owner_;
    Routing::Hardware::VrfStatus& status_;
    bool initialized_ = false;
    Vel::Subscription vrfId_;
};

// Follows the binding of one VRF.
class NavLoadBalancerSm::VelVrfConfig : public Vel::Object {
  public:
    VelVrfConfig(NavLoadBalancerSm& owner, VrfConfig& config)
        : owner_(owner),
          config_(config),
          policyName_(Vel::Subscription::to<&VelVrfConfig::handleNavVrfPolicyConfig>(
              config, VrfConfig::policyNameAttr, this)) {}

    void handleInitialized() {
        DUOLOG_ENTRY(policyTrace);
        POLICY_TRACE(7, "vrfName: ", config_.vrfName(), ", policyName: ", config_.policyName());
        if (!owner_.initialized_) {
            POLICY_TRACE(8, "navLoadBalancerSm not initialized");
            return;
        }
        handleNavVrfPolicyConfig();
    }
    void handleNavVrfPolicyConfig() {
        DUOLOG_ENTRY(policyTrace);
        POLICY_TRACE(7, "vrfName: ", config_.vrfName(), " policyName: ", config_.policyName());
        if (!owner_.initialized_) return;
        forget();
        wanted_ = config_.policyName();
        owner_.wantedBy_[wanted_].insert(config_.vrfName());
        // A copy: a subscriber called on the way may bind the VRF to another policy.
        owner_.handleNavVrfPolicyMapping(config_.vrfName(), Vel::String(wanted_));
    }
    void handleNavVrfPolicyConfigDel() {
        DUOLOG_ENTRY(policyTrace);
        POLICY_TRACE(7, "vrfName: ", config_.vrfName(), " policyName: ", config_.policyName());
        if (!owner_.initialized_) return;
        forget();
        owner_.handleNavVrfPolicyMapping(config_.vrfName(), config_.policyName());
    }
    void handleDelete() { handleNavVrfPolicyConfigDel(); }

  private:
    void forget() {
        const auto found = owner_.wantedBy_.find(wanted_);
        if (found == owner_.wantedBy_.end()) return;
        found->second.erase(config_.vrfName());
        if (found->second.empty()) owner_.wantedBy_.erase(found);
    }

    NavLoadBalancerSm& owner_;
    VrfConfig& config_;
    Vel::String wanted_;  // the policy whose entry in wantedBy_ contains this VRF
    Vel::Subscription policyName_;
};

NavLoadBalancerSm::NavLoadBalancerSm(const Inputs& inputs)
    : in_(inputs),
      policies_(Vel::Subscription::to<static_cast<void (NavLoadBalancerSm::*)(const Vel::Name&)>(
                    &NavLoadBalancerSm::handleNavPolicyConfig)>(
          *in_.cliConfig, NavCliConfig::policyConfigAttr, this)),
      vrfStatus_(*this, *in_.routingHwRouteStatus, Routing::Hardware::RouteStatus::vrfStatusAttr),
      navVrfConfig_(*this, *in_.cliConfig, NavCliConfig::vrfConfigAttr) {}

void NavLoadBalancerSm::handleInitialized() {
    DUOLOG_ENTRY(policyTrace);
    if (initialized_) {
        POLICY_TRACE(8, " already initialized");
        return;
    }
    initialized_ = true;
    vrfStatus_.initialize();
    handleNavPolicyConfig();
    navVrfConfig_.initialize();
    dropLeftovers();
}

// Removes entries that an earlier process published and this configuration does not require.
void NavLoadBalancerSm::dropLeftovers() {
    for (NavRuleStatus& rules : in_.navStatusDir->navRuleStatus())
        if (!vrfToPolicy_.contains(rules.name())) in_.navStatusDir->navRuleStatusDel(rules.name());
    for (auto& policy : in_.navFeaturePolicyDir->featurePolicy())
        if (!policySm_(policy.name())) in_.navFeaturePolicyDir->featurePolicyDel(policy.name());
    if (auto* applied = in_.navFeaturePolicyDir->appliedPolicy(vrfTarget))
        for (const auto& [vrf, policy] : applied->policyForTarget())
            if (!vrfToPolicy_.contains(vrf)) applied->policyForTargetDel(vrf);
}

// VRF ids and policy reactors are removed first, so that the removals cannot bind or program again.
void NavLoadBalancerSm::doCleanup() {
    DUOLOG_ENTRY(policyTrace);
    initialized_ = false;
    vrfStatus_.clear();
    navVrfConfig_.clear();
    vrfNameToId_.clear();
    wantedBy_.clear();
    policySm_.delAll();
    policyToVrf_.clear();
    in_.navFeaturePolicyDir->featurePolicyDelAll();
    for (NavRuleStatus& rules : in_.navStatusDir->navRuleStatus()) removeRuleStatus(rules.name());
    in_.navFeaturePolicyDir->appliedPolicyDel(vrfTarget);
}

// ---- VRF ids ----

const U32* NavLoadBalancerSm::vrfNameToId(const L3::VrfName& vrf) const {
    const auto found = vrfNameToId_.find(vrf);
    return found == vrfNameToId_.end() ? nullptr : &found->second;
}

void NavLoadBalancerSm::vrfIdIs(const L3::VrfName& vrf, U32 vrfId) {
    vrfNameToId_[vrf] = vrfId;
    recordVrfId(*in_.navDb, *in_.routingHwRouteStatus, vrf, vrfId);
    mapToConfigured(vrf);
}

void NavLoadBalancerSm::vrfIdDel(const L3::VrfName& vrf) {
    vrfNameToId_.erase(vrf);
    mapToConfigured(vrf);
}

void NavLoadBalancerSm::mapToConfigured(const L3::VrfName& vrf) {
    if (const VrfConfig* config = in_.cliConfig->vrfConfig(vrf))
        handleNavVrfPolicyMapping(vrf, Vel::String(config->policyName()));
}

// ---- bindings ----

// Both use the inputs as they are now.
bool NavLoadBalancerSm::isBoundTo(const L3::VrfName& vrf, const Vel::String& policyName) const {
    const VrfConfig* config = in_.cliConfig->vrfConfig(vrf);
    return config && config->policyName() == policyName && !policyName.empty() &&
           vrfNameToId_.contains(vrf) && in_.cliConfig->policyConfig(policyName);
}
bool NavLoadBalancerSm::isBound(const L3::VrfName& vrf) const {
    const VrfConfig* config = in_.cliConfig->vrfConfig(vrf);
    return config && isBoundTo(vrf, config->policyName());
}

void NavLoadBalancerSm::handleNavVrfPolicyMapping(const L3::VrfName& vrf,
                                                  const Vel::String& policyName) {
    POLICY_TRACE(8, "vrfName: ", vrf, " policyName: ", policyName);
    if (isBoundTo(vrf, policyName))
        bind(vrf, policyName);
    else if (!isBound(vrf))
        unbind(vrf, policyName);
}

// A bind always starts from an empty rule status, so that the load-balance reactor releases the ids
// allocated under another policy or VRF id.
void NavLoadBalancerSm::bind(const L3::VrfName& vrf, const Vel::String& policyName) {
    POLICY_TRACE(8, "Add vrf: ", vrf, " to policy: ", policyName);
    auto& applied = in_.navFeaturePolicyDir->appliedPolicyIs(vrfTarget);
    if (!isBoundTo(vrf, policyName)) return;
    applied.policyForTargetIs(vrf, policyName);
    if (!isBoundTo(vrf, policyName)) return;
    if (const auto found = vrfToPolicy_.find(vrf);
        found != vrfToPolicy_.end() && found->second.policyName != policyName)
        leavePolicy(vrf);
    if (NavRuleStatus* rules = in_.navStatusDir->navRuleStatus(vrf)) rules->navRuleEntryDelAll();
    if (!isBoundTo(vrf, policyName)) return;
    removeVrfApps(vrf);
    vrfToPolicy_[vrf].policyName = policyName;
    in_.navStatusDir->navRuleStatusIs(vrf);
    if (!isBoundTo(vrf, policyName)) return;
    policyToVrfIs(policyName).vrfIs(vrf);
    handleNavPolicyConfigVersion(vrf, policyName);
}

void NavLoadBalancerSm::unbind(const L3::VrfName& vrf, const Vel::String& policyName) {
    POLICY_TRACE(8, "Deleting vrf: ", vrf, " to policy: ", policyName);
    auto& applied = in_.navFeaturePolicyDir->appliedPolicyIs(vrfTarget);
    if (isBound(vrf)) return;
    applied.policyForTargetDel(vrf);
    if (isBound(vrf)) return;
    if (policyToVrf_.contains(policyName))
        POLICY_TRACE(8, "Deleting policyToVrfEntry & navRuleStatus");
    leavePolicy(vrf);
    if (!in_.navStatusDir->navRuleStatus(vrf)) return;
    POLICY_TRACE(8, "Deleting navRuleStatus for vrf");
    removeRuleStatus(vrf);
}

// Removes the VRF from the list of the policy that it is bound to.
void NavLoadBalancerSm::leavePolicy(const L3::VrfName& vrf) {
    const auto found = vrfToPolicy_.find(vrf);
    if (found == vrfToPolicy_.end()) return;
    if (const Vel::Ptr<PolicyToVrf> members{policyToVrf(found->second.policyName)})
        members->vrfDel(vrf);
}

// If another bound VRF reports the same id and has the application, the entry names that VRF next.
void NavLoadBalancerSm::removeVrfApp(const L3::VrfName& vrf, const VrfAppKey& key) {
    const VrfApp* app = in_.navDb->vrfApp(key);
    if (!app || app->vrfName != vrf.str()) return;
    in_.navDb->vrfAppDel(key);
    for (const auto& [other, binding] : vrfToPolicy_)
        if (const auto found = binding.apps.find(key); found != binding.apps.end())
            return in_.navDb->vrfAppIs({key, other.str(), found->second});
}

void NavLoadBalancerSm::removeVrfApps(const L3::VrfName& vrf) {
    const auto found = vrfToPolicy_.find(vrf);
    if (found == vrfToPolicy_.end()) return;
    for (const auto& [key, name] : std::exchange(found->second.apps, {})) removeVrfApp(vrf, key);
}

// The load-balance reactor releases the VRF's ids when the rule status is removed.
void NavLoadBalancerSm::removeRuleStatus(const L3::VrfName& vrf) {
    const L3::VrfName name = vrf;  // a copy: `vrf` may be part of the status deleted here
    removeVrfApps(name);
    vrfToPolicy_.erase(name);
    in_.navStatusDir->navRuleStatusDel(name);
}

// ---- rules ----

void NavLoadBalancerSm::handleNavPolicyConfigVersion(const L3::VrfName& vrf,
                                                     const Vel::String& policyName) {
    if (const PolicyConfig* policy = in_.cliConfig->policyConfig(policyName))
        return handleNavPolicyConfigVersion(vrf, policyName, rulesOf(*policy));
    POLICY_TRACE(8, "vrfName: ", vrf, " policyName: ", policyName);
    POLICY_TRACE(8, "No policyEntry for policyName: ", policyName);
}

// Stops if a subscriber caused a newer reconciliation or unbound the VRF; that reaction has done
// the rest.
void NavLoadBalancerSm::handleNavPolicyConfigVersion(const L3::VrfName& vrf,
                                                     const Vel::String& policyName,
                                                     const PolicyRules& rules) {
    POLICY_TRACE(8, "vrfName: ", vrf, " policyName: ", policyName);
    NavRuleStatus* status = in_.navStatusDir->navRuleStatus(vrf);
    if (!status) return;
    const U32* known = vrfNameToId(vrf);
    const U32 vrfId = known ? *known : 0;
    const U64 mine = vrfToPolicy_[vrf].reconciliation = ++reconciliations_;
    // The binding; null if this is not its newest reconciliation.
    const auto binding = [&]() -> Binding* {
        const auto found = vrfToPolicy_.find(vrf);
        return found != vrfToPolicy_.end() && found->second.reconciliation == mine ? &found->second
                                                                                   : nullptr;
    };

    for (const NavRuleEntry& entry : status->navRuleEntry()) {
        if (!binding()) return;
        const auto rule = std::lower_bound(
            rules.begin(), rules.end(), entry.ruleKey,
            [](const PolicyRule& each, U32 ruleKey) { return each.entry.ruleKey < ruleKey; });
        if (rule != rules.end() && rule->entry == entry) continue;
        POLICY_TRACE(8, "Del appProfileId: ", entry.appProfileId,
                     " lbProfileName: ", entry.lbProfileName);
        const VrfAppKey key{vrfId, entry.appProfileId};
        binding()->apps.erase(key);
        removeVrfApp(vrf, key);
        status->navRuleEntryDel(entry);
    }
    for (const auto& [entry, appName] : rules) {
        if (!binding()) return;
        if (entry.ruleKey == NavConstants::defaultRuleKey)
            POLICY_TRACE(8, "Add defaultRuleEntry: ", entry);
        else
            POLICY_TRACE(8, "Add appProfileId: ", entry.appProfileId,
                         " lbGrpName: ", entry.lbProfileName);
        status->navRuleEntryIs(entry);
        if (!Routing::Hardware::knownVrfId(vrf, vrfId)) continue;
        const VrfAppKey key{vrfId, entry.appProfileId};
        if (Binding* bound = binding()) {
            bound->apps[key] = appName;
            in_.navDb->vrfAppIs({key, vrf.str(), appName});
        }
    }
}

// ---- policies ----

PolicyToVrf* NavLoadBalancerSm::policyToVrf(const Vel::String& policyName) const {
    const auto found = policyToVrf_.find(policyName);
    return found == policyToVrf_.end() ? nullptr : found->second.get();
}

PolicyToVrf& NavLoadBalancerSm::policyToVrfIs(const Vel::String& policyName) {
    auto& members = policyToVrf_[policyName];
    if (!members) members = Vel::make<PolicyToVrf>(policyName);
    return *members;
}

void NavLoadBalancerSm::handleNavPolicyConfig() {
    DUOLOG_ENTRY(policyTrace);
    for (const PolicyConfig& policy : in_.cliConfig->policyConfig())
        handleNavPolicyConfig(policy.name());
}

void NavLoadBalancerSm::handleNavPolicyConfig(const Vel::Name& policyName) {
    POLICY_TRACE(8, "policyName: ", policyName);
    if (!initialized_) return;
    const auto* reactor = policySm_(policyName);
    const auto* before = in_.cliConfig->policyConfig(policyName);
    // The policy may have been deleted and created again before this notification arrived.
    if (!before || (reactor && reactor->inputs().policyEntry.ptr().get() != before))
        deletePolicy(policyName);

    PolicyConfig* policy = in_.cliConfig->policyConfig(policyName);
    if (!policy || !initialized_) return;
    policySm_.is(policyName, {.name = policyName,
                              .policyEntry = *policy,
                              .policyToVrf = policyToVrfIs(policyName),
                              .navStatusDir = in_.navStatusDir,
                              .navLbSm = this,
                              .navFeaturePolicyDir = in_.navFeaturePolicyDir});
    const auto wanted = wantedBy_.find(policyName);
    if (wanted == wantedBy_.end()) return;
    for (const L3::VrfName& vrf : std::set<L3::VrfName>(wanted->second))
        handleNavVrfPolicyMapping(vrf, policyName);
}

// The policy stays applied to its VRFs in the classification directory until their binding changes.
// The policy's reactor is removed before anything is announced: a subscriber may create the policy
// again.
void NavLoadBalancerSm::deletePolicy(const Vel::Name& policyName) {
    POLICY_TRACE(8, "Delete navFeaturePolicyDir entry for policy: ", policyName);
    const Vel::Ptr<PolicyToVrf> members{policyToVrf(policyName)};
    policyToVrf_.erase(policyName);
    policySm_.del(policyName);
    in_.navFeaturePolicyDir->featurePolicyDel(policyName);
    if (!members) return;
    for (const L3::VrfName& vrf : members->vrf())
        if (!isBound(vrf)) removeRuleStatus(vrf);
}

}  // namespace Nav
