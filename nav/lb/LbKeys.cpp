#include "nav/lb/LbKeys.h"

#include <algorithm>

#include "platform/netz/Assert.h"

namespace Nav {

void LbKeys::add(const LbProfileKey& key, LbNameToLbKeySet& keySet) {
    KeySets& keySets = sites_[key.vtepIp].apps[{key.vrfId, key.appId}];
    if (std::find(keySets.begin(), keySets.end(), Vel::Ptr<LbNameToLbKeySet>(keySet)) !=
        keySets.end())
        return;
    keySets.emplace_back(keySet);
    keySet.lbKeyIs(key);
}

void LbKeys::leave(const LbProfileKey& key, LbNameToLbKeySet& keySet) {
    const auto site = sites_.find(key.vtepIp);
    if (site == sites_.end()) return;
    const auto app = site->second.apps.find({key.vrfId, key.appId});
    if (app == site->second.apps.end()) return;
    std::erase(app->second, Vel::Ptr<LbNameToLbKeySet>(keySet));
    keySet.lbKeyDel(key);
}

void LbKeys::remove(const LbProfileKey& key) {
    const auto site = sites_.find(key.vtepIp);
    if (site == sites_.end()) return;
    const auto app = site->second.apps.find({key.vrfId, key.appId});
    if (app == site->second.apps.end()) return;
    for (const auto& keySet : app->second) keySet->lbKeyDel(key);
    site->second.apps.erase(app);
    if (!site->second.apps.empty()) return;
    vanishedDel(site->second);
    if (site->second.siteGroups == 0) sites_.erase(site);
}

void LbKeys::siteGroupAdded(const Netz::IpGenAddr& address) {
    Site& site = sites_[address];
    ++site.siteGroups;
    vanishedDel(site);
}

void LbKeys::siteGroupRemoved(const Netz::IpGenAddr& address) {
    const auto site = sites_.find(address);
    const bool siteGroups = site != sites_.end() && site->second.siteGroups > 0;
    VEL_ASSERT(siteGroups, "siteGroups");
    if (--site->second.siteGroups > 0) return;
    if (site->second.apps.empty()) {
        sites_.erase(site);
    } else {
        site->second.vanished = ++lastVanished_;
        vanished_.emplace(lastVanished_, address);
    }
}

void LbKeys::vanishedDel(Site& site) {
    if (site.vanished == 0) return;
    vanished_.erase(site.vanished);
    site.vanished = 0;
}

std::vector<LbProfileKey> LbKeys::of(const VrfAppKey& app) const {
    std::vector<LbProfileKey> keys;
    for (const auto& [address, site] : sites_)
        if (site.apps.contains(app)) keys.push_back({address, app.appId, app.vrfId});
    return keys;
}

std::vector<LbProfileKey> LbKeys::of(const Netz::IpGenAddr& address) const {
    std::vector<LbProfileKey> keys;
    const auto site = sites_.find(address);
    if (site == sites_.end()) return keys;
    keys.reserve(site->second.apps.size());
    for (const auto& [app, keySets] : site->second.apps)
        keys.push_back({address, app.appId, app.vrfId});
    return keys;
}

std::optional<LbProfileKey> LbKeys::longestVanished() const {
    if (vanished_.empty()) return std::nullopt;
    const Netz::IpGenAddr& address = vanished_.begin()->second;
    const VrfAppKey& app = sites_.at(address).apps.begin()->first;
    return LbProfileKey{address, app.appId, app.vrfId};
}

void LbKeys::clear() {
    sites_.clear();
    vanished_.clear();
}

}  // namespace Nav
