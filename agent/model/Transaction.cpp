#include "agent/model/Transaction.h"

#include "agent/model/LbDemand.h"

namespace Agent {

using Nav::NavCliConfig;
using Vel::Attribute;
using Vel::Entity;

namespace {

// Removes from `to` every entry and member that `from` does not have. Later attributes of a
// configuration refer to earlier ones, so they are removed first.
void removeSurplus(Entity& to, const Entity& from) {
    const Vel::TypeDescriptor& type = to.type();
    for (size_t i = type.count; i-- > 0;) {
        const Attribute& a = type.attributes[i];
        if (a.kind == Attribute::Kind::child) removeSurplus(*a.find(to, {}), *a.find(from, {}));
        if (!a.keyed()) continue;
        for (const std::string& key : a.keys(to)) {
            if (a.kind == Attribute::Kind::collection) {
                const Entity* wanted = a.find(from, key);
                Entity* present = a.find(to, key);
                if (wanted && present)
                    removeSurplus(*present, *wanted);
                else
                    a.eraseAt(to, key);
            } else if (!a.getAt(from, key)) {
                a.eraseAt(to, key);
            }
        }
    }
}

// Raises the wanted version if reactors would otherwise not detect a complete change.
void settleVersion(const Nav::PolicyConfig& running, Nav::PolicyConfig& wanted) {
    const Vel::U32 given = wanted.configVersion(), current = running.configVersion();
    wanted.configVersionIs(current);
    const bool changed = toDatum(wanted) != toDatum(running);
    if (given > current)
        wanted.configVersionIs(given);
    else if (changed)
        wanted.configVersionInc(1);
}

ForwardingPtr wantedForwarding(const ForwardingConfig* running, ForwardingPtr wanted) {
    if (wanted && !running) throw TreeError("/" + std::string(forwardingName), notForwarding);
    return wanted || !running ? wanted : copyForwarding(*running);
}

std::vector<Root> rootsOf(NavCliConfig& config, ForwardingConfig* forwarding) {
    std::vector<Root> roots = {Root::of(configName, config)};
    if (forwarding) roots.push_back(Root::of(forwardingName, *forwarding));
    return roots;
}

}  // namespace

Transaction::Transaction(const RunningConfig& running, WantedConfig wanted)
    : running_(running.paths),
      wanted_(wanted.paths ? wanted.paths : copyConfig(running_)),
      runningForwarding_(running.forwarding),
      wantedForwarding_(wantedForwarding(runningForwarding_, wanted.forwarding)),
      runningIpsec_(running.ipsec),
      wantedIpsec_(wanted.ipsec),
      tree_(rootsOf(*wanted_, wantedForwarding_.get())) {}

std::vector<std::string> Transaction::check(const Ip::Status* interfaces) const {
    validateConfig(*wanted_);
    std::vector<std::string> warnings = configWarnings(*wanted_, interfaces);
    if (const size_t groups = running_.pathGroupConfig().size();
        groups > 0 && wanted_->pathGroupConfig().empty())
        warnings.push_back("this removes every path group (" + std::to_string(groups) +
                           "), and with them every path");
    const auto add = [&warnings](std::vector<std::string> more) {
        for (std::string& warning : more) warnings.push_back(std::move(warning));
    };
    if (wantedForwarding_) {
        validateForwarding(*wantedForwarding_);
        add(forwardingWarnings(*wanted_, *wantedForwarding_));
    }
    if (runningIpsec_) add(ipsecWarnings(*wanted_, wantedIpsec_ ? *wantedIpsec_ : *runningIpsec_));
    return warnings;
}

std::vector<Difference> Transaction::differences() const {
    // A version lower than the running one has no effect.
    for (Nav::PolicyConfig& policy : wanted_->policyConfig())
        if (const auto* running = running_.policyConfig(policy.name()))
            policy.configVersionIs(std::max(policy.configVersion(), running->configVersion()));
    std::vector<Difference> differences;
    const auto add = [&](const char* name, const Entity* running, const Entity* wanted) {
        if (running && wanted)
            addDifferences(differences, *running, *wanted, std::string("/") + name);
    };
    add(configName, &running_, wanted_.get());
    add(forwardingName, runningForwarding_, wantedForwarding_.get());
    add(ipsecName, runningIpsec_, wantedIpsec_.get());
    return differences;
}

void Transaction::apply() {
    const Vel::Hold hold;
    const bool on = wanted_->navConfigured();
    if (!on) running_.navConfiguredIs(false);
    wanted_->navConfiguredIs(running_.navConfigured());
    settleVersions();

    stepAside();
    removeSurplus(running_, *wanted_);
    settleProfiles();
    if (wantedIpsec_) {
        removeSurplus(*runningIpsec_, *wantedIpsec_);
        addMissing(*runningIpsec_, *wantedIpsec_);
    }
    if (runningForwarding_) {
        removeSurplus(*runningForwarding_, *wantedForwarding_);
        addMissing(*runningForwarding_, *wantedForwarding_);
    }
    addMissing(running_, *wanted_);
    running_.navConfiguredIs(on);
}

void Transaction::settleVersions() {
    for (Nav::PolicyConfig& policy : wanted_->policyConfig())
        if (const auto* running = running_.policyConfig(policy.name()))
            settleVersion(*running, policy);
}

// Removes entries that cannot stay while the configuration changes; addMissing() restores them.
void Transaction::stepAside() {
    const auto replaced = replacedPolicies();
    for (const L3::VrfName& vrf : bindingsInTheWay(replaced)) running_.vrfConfigDel(vrf);
    for (const std::string& policy : replaced) running_.policyConfigDel(policy);
    // A group that loses its IPsec profile loses its paths with it. It regains them when its
    // destinations are added again.
    for (Nav::PathGroupConfig& group : running_.pathGroupConfig()) {
        const auto* wanted = wanted_->pathGroupConfig(group.name());
        if (!wanted || group.ipsecProfile().empty() || !wanted->ipsecProfile().empty()) continue;
        for (Nav::RemoteViaConfig& site : group.remoteViaConfig()) site.remoteViaDelAll();
    }
}

// Policies that are removed, or that lose their last rule: the classification module would keep an
// empty policy, which it does not have for a policy that never had a rule.
std::set<std::string> Transaction::replacedPolicies() const {
    std::set<std::string> replaced;
    for (const Nav::PolicyConfig& policy : running_.policyConfig()) {
        const auto* wanted = wanted_->policyConfig(policy.name());
        if (!wanted || (wanted->appProfilePolicyRuleList().empty() &&
                        !policy.appProfilePolicyRuleList().empty()))
            replaced.insert(policy.name());
    }
    return replaced;
}

// A binding to a policy that is removed is announced again, since otherwise the policy would stay
// applied to the VRF.
//
// If another VRF could need load-balance ids before they are free, bindings release them first. In
// an intermediate state a VRF needs at most as many ids as both configurations combined; bindings
// that need no more than at the end may stay, and the others are restored when everything else has
// its final state.
std::set<L3::VrfName> Transaction::bindingsInTheWay(const std::set<std::string>& replaced) const {
    const auto onTheWay = lbDemand({&running_, wanted_.get()}), after = lbDemand({wanted_.get()});
    const bool enough = fits(onTheWay);
    std::set<L3::VrfName> bindings;
    for (const Nav::VrfConfig& binding : running_.vrfConfig()) {
        const auto needed = after.find(binding.vrfName());
        const bool needsAllAtTheEnd =
            needed != after.end() && needed->second == onTheWay.at(binding.vrfName());
        if (replaced.contains(binding.policyName()) || !(enough || needsAllAtTheEnd))
            bindings.insert(binding.vrfName());
    }
    return bindings;
}

// The profile is set first, so that new destinations of a group are never paths without IPsec.
void Transaction::settleProfiles() {
    for (Nav::PathGroupConfig& group : running_.pathGroupConfig())
        group.ipsecProfileIs(wanted_->pathGroupConfig(group.name())->ipsecProfile());
}

}  // namespace Agent
