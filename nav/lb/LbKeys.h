// The keys that have a load-balance id, by site, with the profiles on whose behalf they have it,
// and the sites that have vanished. State without reactions.
//
// A site vanishes when its last entry in the site group status is removed. Its keys keep their ids
// for its return; when ids run out, the keys of the site that vanished longest ago are released
// first.
#pragma once

#include <map>
#include <optional>
#include <unordered_map>
#include <vector>

#include "nav/types/NavDb.h"

namespace Nav {

class LbKeys {
  public:
    // Adds the key, whether it is new or not, to the key set of one profile.
    void add(const LbProfileKey& key, LbNameToLbKeySet& keySet);
    // Removes the key from the key set of one profile.
    void leave(const LbProfileKey& key, LbNameToLbKeySet& keySet);
    // Removes the key from all key sets. Does nothing if it was not added.
    void remove(const LbProfileKey& key);

    void siteGroupAdded(const Netz::IpGenAddr& site);
    // REQUIRES: siteGroupAdded(site) was called once more than siteGroupRemoved(site).
    void siteGroupRemoved(const Netz::IpGenAddr& site);

    // The keys of one application, and those of one site.
    std::vector<LbProfileKey> of(const VrfAppKey& app) const;
    std::vector<LbProfileKey> of(const Netz::IpGenAddr& site) const;
    // A key of the site that vanished longest ago; empty if no vanished site has a key.
    std::optional<LbProfileKey> longestVanished() const;
    void clear();

  private:
    // The key sets of the path database that hold a key, each once.
    using KeySets = std::vector<Vel::Ptr<LbNameToLbKeySet>>;
    struct Site {
        U32 siteGroups = 0;                 // its entries in the site group status
        std::map<VrfAppKey, KeySets> apps;  // its keys
        U64 vanished = 0;                   // its number in vanished_; 0: not in vanished_
    };
    void vanishedDel(Site& site);

    std::unordered_map<Netz::IpGenAddr, Site> sites_;  // each has site groups or keys
    // Exactly the sites that have keys and whose last site group was removed, in that order.
    std::map<U64, Netz::IpGenAddr> vanished_;
    U64 lastVanished_ = 0;  // the highest number ever used in vanished_
};

}  // namespace Nav
