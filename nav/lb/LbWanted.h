// Decides what the rules require of one load-balance key, by the configuration and site groups as
// they are now: which rule governs each path group of the site, and which profile gives the
// constraints.
//
// A path group is governed by the first rule in order of precedence whose profile exists and lists
// the group. The first rule that governs a group of which the site has an entry gives the
// constraints. A key without such a rule is not wanted.
#pragma once

#include "nav/config/NavCliConfig.h"
#include "nav/lb/LbRules.h"

namespace Nav {

// The rule that governs a path group, and its profile.
struct LbGovernor {
    const LbRule* rule =
        nullptr;  // null if no rule governs the group; then the profile is null too
    const LoadBalanceProfile* profile = nullptr;
    explicit operator bool() const { return rule; }
    bool is(const NavRuleEntry& entry, const L3::VrfName& vrf) const {
        return rule && rule->entry == entry && rule->vrf == vrf;
    }
};

// A view for immediate use: valid until rules, profiles or site groups change.
class LbWanted {
  public:
    LbWanted(const LbRules::Rules& rules, const NavCliConfig& cliConfig,
             const SiteGroupStatus& siteGroupStatus, const Netz::IpGenAddr& site)
        : rules_(rules), cliConfig_(cliConfig), siteGroupStatus_(siteGroupStatus), site_(site) {}

    LbGovernor governing(const Vel::String& pgName) const;
    // The profile that gives the constraints; null if the key is not wanted.
    const LoadBalanceProfile* constraints() const;
    // Whether a rule naming the profile governs a group of which the site has an entry.
    bool wantedBy(const Vel::String& lbName) const;

  private:
    const LbRules::Rules& rules_;
    const NavCliConfig& cliConfig_;
    const SiteGroupStatus& siteGroupStatus_;
    const Netz::IpGenAddr& site_;
};

}  // namespace Nav
