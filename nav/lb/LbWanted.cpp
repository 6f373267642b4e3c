#include "nav/lb/LbWanted.h"

namespace Nav {

const LbRule* LbWanted::governing(const Vel::String& pgName) const {
    for (const LbRule& rule : rules_) {
        const auto* profile = cliConfig_.loadBalanceProfile(rule.entry.lbProfileName);
        if (profile && profile->pathGroupPriority(pgName)) return &rule;
    }
    return nullptr;
}

const LoadBalanceProfile* LbWanted::constraints() const {
    for (const LbRule& rule : rules_)
        if (const auto* profile = cliConfig_.loadBalanceProfile(rule.entry.lbProfileName))
            for (const auto& [pgName, priority] : profile->pathGroupPriority())
                if (siteGroupStatus_.siteGroupStatusEntry({pgName, site_})) return profile;
    return nullptr;
}

}  // namespace Nav
