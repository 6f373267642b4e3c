#include "nav/policy/NavLoadBalancerSm.h"

#include "nav/policy/PolicyTrace.h"

namespace Nav {

using Classification::vrfTarget;

namespace {

// An id of 0 means "not known yet" for every VRF but this one.
bool isAccepted(const L3::VrfName& vrf, U32 vrfId) {
    return vrfId != 0 || vrf.str() == "default";
}

bool hasDefaultRule(const PolicyConfig& policy) {
    return policy.defaultRuleCfgd() && !policy.defaultLbGrpName().empty();
}

bool isConfigured(const NavRuleEntry& entry, const PolicyConfig& policy) {
    if (entry.ruleKey == NavConstants::defaultRuleKey)
        return hasDefaultRule(policy) && policy.defaultLbGrpName() == entry.lbProfileName;
    const auto* rule = policy.appProfilePolicyRuleList(entry.ruleKey);
    return rule && rule->appProfileId() == entry.appProfileId &&
           rule->lbGrpName() == entry.lbProfileName;
}

}  // namespace

// Follows the hardware's id of one VRF.
class NavLoadBalancerSm::VelVrfStatus : public Vel::Object {
  public:
    VelVrfStatus(NavLoadBalancerSm& owner, Routing::Hardware::VrfStatus& status)
        : owner_(owner),
          status_(status),
          vrfId_(Vel::Subscription::to<&VelVrfStatus::handleVrfId>(
              status, Routing::Hardware::VrfStatus::vrfIdAttr, this)) {}

    void handleInitialized() {
        POLICY_TRACE(7, "vrfName: ", status_.vrfName(), ", vrfId: ", status_.vrfId());
        if (!owner_.initialized_) {
            POLICY_TRACE(7, "navLoadBalancerSm not initialized");
            return;
        }
        initialized_ = true;
        handleVrfId();
    }
    void handleVrfId() {
        if (initialized_) owner_.handleVrfId(status_.vrfName(), status_.vrfId());
    }
    void handleDelete() {
        if (initialized_) owner_.handleVrfDel(status_.vrfName(), status_.vrfId());
    }

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
        POLICY_TRACE(7, "vrfName: ", config_.vrfName(), ", policyName: ", config_.policyName());
        if (!owner_.initialized_) {
            POLICY_TRACE(7, "navLoadBalancerSm not initialized");
            return;
        }
        initialized_ = true;
        handleNavVrfPolicyConfig();
    }
    void handleNavVrfPolicyConfig() {
        if (!initialized_) return;
        POLICY_TRACE(7, "vrfName: ", config_.vrfName(), " policyName: ", config_.policyName());
        forget();
        wanted_ = config_.policyName();
        owner_.wantedBy_[wanted_].insert(config_.vrfName());
        owner_.handleNavVrfPolicyMapping(config_.vrfName(), config_.policyName());
    }
    void handleDelete() {
        if (!initialized_) return;
        POLICY_TRACE(7, "vrfName: ", config_.vrfName(), " policyName: ", config_.policyName());
        owner_.handleNavVrfPolicyMapping(config_.vrfName(), config_.policyName());
    }
    void doCleanup() { forget(); }

  private:
    void forget() {
        auto found = owner_.wantedBy_.find(wanted_);
        if (found == owner_.wantedBy_.end()) return;
        found->second.erase(config_.vrfName());
        if (found->second.empty()) owner_.wantedBy_.erase(found);
    }

    NavLoadBalancerSm& owner_;
    VrfConfig& config_;
    Vel::String wanted_;  // the policy under which this VRF stands in wantedBy_
    bool initialized_ = false;
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

// What an earlier life published and nothing configures any more.
void NavLoadBalancerSm::dropLeftovers() {
    for (NavRuleStatus& rules : in_.navStatusDir->navRuleStatus())
        if (!vrfToPolicy_.contains(rules.name())) in_.navStatusDir->navRuleStatusDel(rules.name());
    for (auto& policy : in_.navFeaturePolicyDir->featurePolicy())
        if (!policySm_(policy.name())) in_.navFeaturePolicyDir->featurePolicyDel(policy.name());
    if (auto* applied = in_.navFeaturePolicyDir->appliedPolicy(vrfTarget))
        for (const auto& [vrf, policy] : applied->policyForTarget())
            if (!vrfToPolicy_.contains(vrf)) applied->policyForTargetDel(vrf);
}

void NavLoadBalancerSm::doCleanup() {
    vrfStatus_.clear();
    navVrfConfig_.clear();
    for (const auto& policy : policySm_.all())
        in_.navFeaturePolicyDir->featurePolicyDel(policy.key);
    policySm_.delAll();
    for (NavRuleStatus& rules : in_.navStatusDir->navRuleStatus()) removeRuleStatus(rules.name());
    in_.navFeaturePolicyDir->appliedPolicyDel(vrfTarget);
}

void NavLoadBalancerSm::handleVrfId(const L3::VrfName& vrf, U32 vrfId) {
    POLICY_TRACE(8, "vrfName: ", vrf, " vrfId: ", vrfId);
    if (!isAccepted(vrf, vrfId)) {
        POLICY_TRACE(8, "Skip mapping from ", vrf, " to ", vrfId);
        if (vrfNameToId_.contains(vrf)) handleVrfDel(vrf, vrfId);  // the id was taken back
        return;
    }
    vrfNameToId_[vrf] = vrfId;
    recordVrfId(*in_.navDb, vrf, vrfId);
    if (const VrfConfig* config = in_.cliConfig->vrfConfig(vrf))
        handleNavVrfPolicyMapping(vrf, config->policyName());
}

void NavLoadBalancerSm::handleVrfDel(const L3::VrfName& vrf, U32 vrfId) {
    POLICY_TRACE(8, "vrfName: ", vrf, " vrfId: ", vrfId);
    vrfNameToId_.erase(vrf);
    if (const VrfConfig* config = in_.cliConfig->vrfConfig(vrf))
        handleNavVrfPolicyMapping(vrf, config->policyName());
}

void NavLoadBalancerSm::handleNavVrfPolicyMapping(const L3::VrfName& vrf,
                                                  const Vel::String& policyName) {
    POLICY_TRACE(8, "vrfName: ", vrf, " policyName: ", policyName);
    const VrfConfig* binding = in_.cliConfig->vrfConfig(vrf);
    PolicyConfig* policy = in_.cliConfig->policyConfig(policyName);
    const bool bound = binding && binding->policyName() == policyName && !policyName.empty() &&
                       policy && vrfNameToId_.contains(vrf);
    if (bound)
        bind(vrf, *policy);
    else
        unbind(vrf, policyName);
}

// A bind always starts from an empty rule status, so that the load-balance side lets go of what it
// made under another policy or VRF id.
void NavLoadBalancerSm::bind(const L3::VrfName& vrf, PolicyConfig& policy) {
    const Vel::String policyName = policy.name();
    POLICY_TRACE(8, "Add vrf: ", vrf, " to policy: ", policyName);
    in_.navFeaturePolicyDir->appliedPolicyIs(vrfTarget).policyForTargetIs(vrf, policyName);
    if (auto found = vrfToPolicy_.find(vrf);
        found != vrfToPolicy_.end() && found->second.policyName != policyName)
        leavePolicy(vrf);
    auto& members = policyToVrf_[policyName];
    if (!members) members = Vel::make<PolicyToVrf>(policyName);
    const Vel::Ptr<PolicyToVrf> policyToVrf = members;
    if (NavRuleStatus* rules = in_.navStatusDir->navRuleStatus(vrf)) rules->navRuleEntryDelAll();
    removeVrfApps(vrf);
    vrfToPolicy_[vrf].policyName = policyName;
    in_.navStatusDir->navRuleStatusIs(vrf);
    policyToVrf->vrfIs(vrf);
    handleNavPolicyConfigVersion(vrf, policyName);
}

void NavLoadBalancerSm::unbind(const L3::VrfName& vrf, const Vel::String& policyName) {
    POLICY_TRACE(8, "Deleting vrf: ", vrf, " to policy: ", policyName);
    in_.navFeaturePolicyDir->appliedPolicyIs(vrfTarget).policyForTargetDel(vrf);
    if (policyToVrf_.contains(policyName))
        POLICY_TRACE(8, "Deleting policyToVrfEntry & navRuleStatus");
    leavePolicy(vrf);
    if (!in_.navStatusDir->navRuleStatus(vrf)) return;
    POLICY_TRACE(8, "Deleting navRuleStatus for vrf");
    removeRuleStatus(vrf);
}

// Takes the VRF out of the list of the policy it is bound to, whichever that is.
void NavLoadBalancerSm::leavePolicy(const L3::VrfName& vrf) {
    auto found = vrfToPolicy_.find(vrf);
    if (found == vrfToPolicy_.end()) return;
    auto members = policyToVrf_.find(found->second.policyName);
    if (members == policyToVrf_.end()) return;
    const Vel::Ptr<PolicyToVrf> policyToVrf = members->second;
    policyToVrf->vrfDel(vrf);
}

void NavLoadBalancerSm::removeVrfApps(const L3::VrfName& vrf) {
    auto found = vrfToPolicy_.find(vrf);
    if (found == vrfToPolicy_.end()) return;
    for (const VrfAppKey& key : std::exchange(found->second.apps, {})) {
        const VrfApp* app = in_.navDb->vrfApp(key);
        if (app && app->vrfName == vrf.str()) in_.navDb->vrfAppDel(key);
    }
}

// Removing the rule status is what makes the load-balance side release the VRF's ids.
void NavLoadBalancerSm::removeRuleStatus(const L3::VrfName& vrf) {
    const L3::VrfName name = vrf;  // outlives the status it may be part of
    removeVrfApps(name);
    vrfToPolicy_.erase(name);
    in_.navStatusDir->navRuleStatusDel(name);
}

void NavLoadBalancerSm::handleNavPolicyConfigVersion(const L3::VrfName& vrf,
                                                     const Vel::String& policyName) {
    POLICY_TRACE(8, "vrfName: ", vrf, " policyName: ", policyName);
    const PolicyConfig* policy = in_.cliConfig->policyConfig(policyName);
    if (!policy) {
        POLICY_TRACE(8, "No policyEntry for policyName: ", policyName);
        return;
    }
    NavRuleStatus* rules = in_.navStatusDir->navRuleStatus(vrf);
    if (!rules) return;

    removeStaleRules(*rules, *policy);
    for (const auto& rule : policy->appProfilePolicyRuleList()) {
        POLICY_TRACE(8, "Add appProfileId: ", rule.appProfileId(),
                     " lbGrpName: ", rule.lbGrpName());
        addRule(*rules, {rule.ruleKey(), rule.appProfileId(), rule.lbGrpName()},
                rule.appProfileName());
    }
    if (!hasDefaultRule(*policy)) return;
    const NavRuleEntry entry{NavConstants::defaultRuleKey, 0, policy->defaultLbGrpName()};
    POLICY_TRACE(8, "Add defaultRuleEntry: ", entry);
    addRule(*rules, entry, "default_app");
}

void NavLoadBalancerSm::removeStaleRules(NavRuleStatus& rules, const PolicyConfig& policy) {
    const auto known = vrfNameToId_.find(rules.name());
    const U32 vrfId = known == vrfNameToId_.end() ? 0 : known->second;
    for (const NavRuleEntry& entry : rules.navRuleEntry()) {
        if (isConfigured(entry, policy)) continue;
        POLICY_TRACE(8, "Del appProfileId: ", entry.appProfileId,
                     " lbProfileName: ", entry.lbProfileName);
        const VrfAppKey key{vrfId, entry.appProfileId};
        in_.navDb->vrfAppDel(key);
        vrfToPolicy_[rules.name()].apps.erase(key);
        rules.navRuleEntryDel(entry);
    }
}

void NavLoadBalancerSm::addRule(NavRuleStatus& rules, const NavRuleEntry& entry,
                                const Vel::String& appName) {
    const L3::VrfName& vrf = rules.name();
    rules.navRuleEntryIs(entry);
    const auto known = vrfNameToId_.find(vrf);
    const U32 vrfId = known == vrfNameToId_.end() ? 0 : known->second;
    if (!isAccepted(vrf, vrfId)) return;
    const VrfAppKey key{vrfId, entry.appProfileId};
    vrfToPolicy_[vrf].apps.insert(key);
    in_.navDb->vrfAppIs({key, vrf.str(), appName});
}

void NavLoadBalancerSm::handleNavPolicyConfig() {
    for (const PolicyConfig& policy : in_.cliConfig->policyConfig())
        handleNavPolicyConfig(policy.name());
}

void NavLoadBalancerSm::handleNavPolicyConfig(const Vel::Name& policyName) {
    if (!initialized_) return;
    POLICY_TRACE(8, "policyName: ", policyName);
    PolicyConfig* policy = in_.cliConfig->policyConfig(policyName);
    const auto* reactor = policySm_(policyName);
    // A policy may have gone and come back before this notification was read.
    if (!policy || (reactor && &*reactor->inputs().policyEntry != policy)) deletePolicy(policyName);
    if (!policy) return;

    auto& members = policyToVrf_[policyName];
    if (!members) members = Vel::make<PolicyToVrf>(policyName);
    policySm_.is(policyName, {.name = policyName,
                              .policyEntry = *policy,
                              .policyToVrf = members,
                              .navStatusDir = in_.navStatusDir,
                              .navLbSm = this,
                              .navFeaturePolicyDir = in_.navFeaturePolicyDir});
    const auto wanted = wantedBy_.find(policyName);
    if (wanted == wantedBy_.end()) return;
    for (const L3::VrfName& vrf : std::set<L3::VrfName>(wanted->second))
        handleNavVrfPolicyMapping(vrf, policyName);
}

// The applied policy of its VRFs stays in the classification directory; a binding that is changed
// or removed takes it away.
void NavLoadBalancerSm::deletePolicy(const Vel::Name& policyName) {
    POLICY_TRACE(8, "Delete navFeaturePolicyDir entry for policy: ", policyName);
    in_.navFeaturePolicyDir->featurePolicyDel(policyName);
    if (auto found = policyToVrf_.find(policyName); found != policyToVrf_.end()) {
        const Vel::Ptr<PolicyToVrf> members = found->second;
        for (const L3::VrfName& vrf : members->vrf()) removeRuleStatus(vrf);
        policyToVrf_.erase(policyName);
    }
    policySm_.del(policyName);
}

}  // namespace Nav
