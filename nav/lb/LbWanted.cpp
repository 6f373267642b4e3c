#include "nav/lb/LbWanted.h"

namespace Nav {

LbGovernor LbWanted::governing(const Vel::String& pgName) const {
    for (const LbRule& rule : rules_) {
        const auto* profile = cliConfig_.loadBalanceProfile(rule.entry.lbProfileName);
        if (profile && profile->pathGroupPriority(pgName)) return {&rule, profile};
    }
    return {};
}

const LoadBalanceProfile* LbWanted::constraints() const {
    for (const LbRule& rule : rules_)
        if (const auto* profile = cliConfig_.loadBalanceProfile(rule.entry.lbProfileName))
            for (const auto& [pgName, priority] : profile->pathGroupPriority())
                if (siteGroupStatus_.siteGroupStatusEntry({pgName, site_})) return profile;
    return nullptr;
}

bool LbWanted::wantedBy(const Vel::String& lbName) const {
    const auto* profile = cliConfig_.loadBalanceProfile(lbName);
    if (!profile) return false;
    for (const auto& [pgName, priority] : profile->pathGroupPriority())
        if (siteGroupStatus_.siteGroupStatusEntry({pgName, site_}))
            if (governing(pgName).profile == profile) return true;
    return false;
}

}  // namespace Nav
