#include "nav/lb/LbRules.h"

#include <algorithm>

namespace Nav {

U32 LbRules::enter(const NavRuleEntry& entry, const L3::VrfName& vrf, U32 vrfId) {
    const auto [known, isNew] = vrfIds_[vrf].try_emplace(entry, vrfId);
    if (isNew) rulesOf_[{vrfId, entry.appProfileId}].insert({entry, vrf});
    return known->second;
}

void LbRules::leave(const NavRuleEntry& entry, const L3::VrfName& vrf) {
    const auto ofVrf = vrfIds_.find(vrf);
    if (ofVrf == vrfIds_.end()) return;
    const auto known = ofVrf->second.find(entry);
    if (known == ofVrf->second.end()) return;
    const auto ofApp = rulesOf_.find({known->second, entry.appProfileId});
    ofApp->second.erase({entry, vrf});
    if (ofApp->second.empty()) rulesOf_.erase(ofApp);
    ofVrf->second.erase(known);
    if (ofVrf->second.empty()) vrfIds_.erase(ofVrf);
}

void LbRules::clear() {
    rulesOf_.clear();
    vrfIds_.clear();
}

std::optional<U32> LbRules::vrfIdOf(const NavRuleEntry& entry, const L3::VrfName& vrf) const {
    const auto ofVrf = vrfIds_.find(vrf);
    if (ofVrf == vrfIds_.end()) return std::nullopt;
    const auto known = ofVrf->second.find(entry);
    return known == ofVrf->second.end() ? std::nullopt : std::optional(known->second);
}

std::map<NavRuleEntry, U32> LbRules::ofVrf(const L3::VrfName& vrf) const {
    const auto found = vrfIds_.find(vrf);
    return found == vrfIds_.end() ? std::map<NavRuleEntry, U32>() : found->second;
}

const LbRules::Rules& LbRules::of(const VrfAppKey& app) const {
    static const Rules none;
    const auto found = rulesOf_.find(app);
    return found == rulesOf_.end() ? none : found->second;
}

const LbRule* firstNaming(const LbRules::Rules& rules, const Vel::String& lbName) {
    const auto found = std::find_if(rules.begin(), rules.end(), [&](const LbRule& rule) {
        return rule.entry.lbProfileName == lbName;
    });
    return found == rules.end() ? nullptr : &*found;
}

}  // namespace Nav
