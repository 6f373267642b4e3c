// The rules of all bound VRFs by (VRF id, application), in order of precedence. State without
// reactions or notifications.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <unordered_map>

#include "nav/types/NavStatusDir.h"

namespace Nav {

// A rule of one VRF. The order is that of precedence: by rule key first.
struct LbRule {
    NavRuleEntry entry;
    L3::VrfName vrf;
    auto operator<=>(const LbRule&) const = default;
};

class LbRules {
  public:
    using Rules = std::set<LbRule>;

    // Enters a rule under the VRF's present id. A rule that is already entered keeps the id under
    // which it was entered. Returns that id.
    U32 enter(const NavRuleEntry& entry, const L3::VrfName& vrf, U32 vrfId);
    void leave(const NavRuleEntry& entry, const L3::VrfName& vrf);
    void clear();

    // The id under which the rule was entered.
    std::optional<U32> vrfIdOf(const NavRuleEntry& entry, const L3::VrfName& vrf) const;
    // The rules of one VRF, each with the id under which it was entered.
    std::map<NavRuleEntry, U32> ofVrf(const L3::VrfName& vrf) const;
    // The rules of one application under one VRF id. (Two VRFs that report the same id share.)
    const Rules& of(const VrfAppKey& app) const;

  private:
    struct Hash {
        size_t operator()(const VrfAppKey& key) const { return Vel::Codec<VrfAppKey>::mix(key); }
    };

    // Both hold the same rules: a rule is in rulesOf_ under the id that vrfIds_ has for it. Neither
    // holds an empty set or map.
    std::unordered_map<VrfAppKey, Rules, Hash> rulesOf_;
    std::unordered_map<L3::VrfName, std::map<NavRuleEntry, U32>> vrfIds_;
};

// The first rule by precedence that names the profile; null if none does.
const LbRule* firstNaming(const LbRules::Rules& rules, const Vel::String& lbName);

}  // namespace Nav
