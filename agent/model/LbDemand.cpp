#include "agent/model/LbDemand.h"

#include <set>
#include <string>
#include <utility>

#include "nav/config/NavConstants.h"

namespace Agent {

using Nav::NavCliConfig;
using Nav::NavConstants;

namespace {

using Configs = std::initializer_list<const NavCliConfig*>;
using Sites = std::set<Netz::IpGenAddr>;

// A set that grows to one more than the limit and no further.
template <class Set>
bool full(const Set& set) {
    return set.size() > NavConstants::maxLbIndex;
}

class Demand {
  public:
    explicit Demand(Configs configs) : configs_(configs) {
        for (const NavCliConfig* config : configs_)
            for (const Nav::LoadBalanceProfile& profile : config->loadBalanceProfile())
                for (const auto& [group, priority] : profile.pathGroupPriority())
                    addSites(sites_[profile.profileName()], group);
    }

    // The demand of a VRF bound to these policies.
    size_t of(const std::set<std::string>& policies) {
        const auto [known, isNew] = demand_.try_emplace(policies, 0);
        if (isNew) {
            Keys keys;
            for (const std::string& policy : policies) addKeys(keys, policy);
            known->second = keys.size();
        }
        return known->second;
    }

  private:
    using Keys = std::set<std::pair<Netz::IpGenAddr, Vel::U32>>;

    void addSites(Sites& sites, const std::string& group) const {
        for (const NavCliConfig* config : configs_) {
            const Nav::PathGroupConfig* found = config->pathGroupConfig(group);
            if (!found) continue;
            for (const Nav::RemoteViaConfig& site : found->remoteViaConfig())
                if (!full(sites)) sites.insert(site.remoteAddr());
        }
    }
    void addKeys(Keys& keys, const std::string& policy) const {
        for (const NavCliConfig* config : configs_) {
            const Nav::PolicyConfig* found = config->policyConfig(policy);
            if (!found) continue;
            for (const auto& rule : found->appProfilePolicyRuleList())
                addKeys(keys, rule.appProfileId(), rule.lbGrpName());
            if (found->defaultRuleCfgd()) addKeys(keys, 0, found->defaultLbGrpName());
        }
    }
    void addKeys(Keys& keys, Vel::U32 application, const std::string& profile) const {
        const auto sites = sites_.find(profile);
        if (sites == sites_.end()) return;
        for (const Netz::IpGenAddr& site : sites->second)
            if (!full(keys)) keys.insert({site, application});
    }

    const Configs configs_;
    std::map<std::string, Sites> sites_;  // by profile
    std::map<std::set<std::string>, size_t> demand_;
};

}  // namespace

std::map<L3::VrfName, size_t> lbDemand(Configs configs) {
    std::map<L3::VrfName, std::set<std::string>> policies;
    for (const NavCliConfig* config : configs)
        for (const Nav::VrfConfig& vrf : config->vrfConfig())
            policies[vrf.vrfName()].insert(vrf.policyName());
    Demand demand(configs);
    std::map<L3::VrfName, size_t> all;
    for (const auto& [vrf, names] : policies) all.emplace(vrf, demand.of(names));
    return all;
}

bool fits(const std::map<L3::VrfName, size_t>& lbDemand) {
    size_t sum = 0;
    for (const auto& [vrf, count] : lbDemand) sum += count;
    return sum <= NavConstants::maxLbIndex;
}

}  // namespace Agent
