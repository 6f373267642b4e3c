#include "nav/lb/NavLbSm.h"

#include <algorithm>

#include "nav/lb/LbTrace.h"

namespace Nav {

namespace {
LbProfileKey keyOf(const Netz::IpGenAddr& site, const VrfAppKey& app) {
    return {site, app.appId, app.vrfId};
}
VrfAppKey appOf(const LbProfileKey& key) {
    return {key.vrfId, key.appId};
}
}  // namespace

// Follows the rules of one VRF.
class LbProfileSm::VelNavRuleStatus : public Vel::Object {
  public:
    VelNavRuleStatus(LbProfileSm& owner, NavRuleStatus& status)
        : owner_(owner),
          status_(status),
          navRuleEntry_(Vel::Subscription::to<&VelNavRuleStatus::handleNavVrfRuleEntry>(
              status, NavRuleStatus::navRuleEntryAttr, this)) {}

    // At start the rules are only entered; the profiles' own start then makes the keys.
    void handleInitialized() {
        for (const NavRuleEntry& entry : status_.navRuleEntry()) {
            if (owner_.initialized_)
                handleNavVrfRuleEntry(entry);
            else
                owner_.enterRule(entry, status_.name());
        }
    }
    void handleNavVrfRuleEntry(const NavRuleEntry& entry) {
        DUOLOG(lbTrace, 7, "NavRuleEntry: ", entry);
        owner_.ruleChanged(entry, status_.name());
    }
    void handleDelete() {
        DUOLOG(lbTrace, 8, "handleNavRuleStatusDelete");
        for (const NavRuleEntry& entry : status_.navRuleEntry())
            owner_.ruleChanged(entry, status_.name());
    }

  private:
    LbProfileSm& owner_;
    NavRuleStatus& status_;
    Vel::Subscription navRuleEntry_;
};

// Follows the paths of one site group.
class LbProfileSm::VelSiteGroupStatusEntry : public Vel::Object {
  public:
    VelSiteGroupStatusEntry(LbProfileSm& owner, SiteGroupStatusEntry& entry)
        : owner_(owner),
          entry_(entry),
          pathIndexEntry_(Vel::Subscription::to<&VelSiteGroupStatusEntry::handleSiteGroupPathEntry>(
              entry, SiteGroupStatusEntry::pathIndexEntryAttr, this)) {}

    void handleInitialized() {}
    void handleSiteGroupPathEntry(const U32& pathIndex) {
        if (!owner_.initialized_) return;
        DUOLOG(lbTrace, 7, "PathIndex: ", pathIndex);
        auto* siteEntry = owner_.in_.siteGroupStatus->siteGroupStatusEntry(entry_.key());
        VEL_ASSERT(siteEntry, "!!siteEntry");
        owner_.sitePathChanged(entry_.key(), pathIndex, !siteEntry->pathIndexEntryHas(pathIndex));
    }
    void handleDelete() {
        DUOLOG(lbTrace, 8, "handleSiteGroupClear");
        for (U32 pathIndex : entry_.pathIndexEntry())
            owner_.sitePathChanged(entry_.key(), pathIndex, true);
        owner_.siteGroupGone(entry_.key());
    }

  private:
    LbProfileSm& owner_;
    SiteGroupStatusEntry& entry_;
    Vel::Subscription pathIndexEntry_;
};

// Follows one load-balance profile.
class LbProfileSm::VelLoadBalanceProfile : public Vel::Object {
  public:
    VelLoadBalanceProfile(LbProfileSm& owner, LoadBalanceProfile& profile)
        : owner_(owner), profile_(profile) {
        using Vel::Subscription;
        using P = LoadBalanceProfile;
        constexpr auto constraints = &VelLoadBalanceProfile::handleLbConstraints;
        subscriptions_[0] = Subscription::to<&VelLoadBalanceProfile::handleLbPathGroupPriority>(
            profile, P::pathGroupPriorityAttr, this);
        subscriptions_[1] = Subscription::to<constraints>(profile, P::latencyAttr, this);
        subscriptions_[2] = Subscription::to<constraints>(profile, P::jitterAttr, this);
        subscriptions_[3] = Subscription::to<constraints>(profile, P::lossRateAttr, this);
    }

    void handleInitialized() {
        DUOLOG(lbTrace, 8, "LbName: ", profile_.profileName());
        initialized_ = true;
        owner_.handleLbNavRuleEntries(profile_.profileName());
    }
    void handleLbPathGroupPriority(const Vel::String& pgName) {
        if (!initialized_) return;
        DUOLOG(lbTrace, 8, "LbName: ", profile_.profileName(), " pgName: ", pgName);
        owner_.handleLbNavRuleEntries(profile_.profileName());
    }
    void handleLbConstraints() {
        if (!initialized_) return;
        DUOLOG_ENTRY(lbTrace);
        owner_.constraintsChanged(profile_.profileName());
    }
    void handleDelete() {
        DUOLOG(lbTrace, 8, "handleLoadBalanceProfileDelete");
        owner_.profileDeleted(profile_.profileName());
    }

  private:
    LbProfileSm& owner_;
    LoadBalanceProfile& profile_;
    bool initialized_ = false;
    std::array<Vel::Subscription, 4> subscriptions_;
};

LbProfileSm::LbProfileSm(const Inputs& inputs)
    : in_(inputs),
      navRuleStatus_(*this, *in_.navStatusDir, NavStatusDir::navRuleStatusAttr),
      siteGroups_(*this, *in_.siteGroupStatus, SiteGroupStatus::siteGroupStatusEntryAttr),
      profiles_(*this, *in_.cliConfig, NavCliConfig::loadBalanceProfileAttr) {}

void LbProfileSm::handleInitialized() {
    if (initialized_) {
        DUOLOG(lbTrace, 8, "handleInitialized", ":", "already initialized");
        return;
    }
    DUOLOG_ENTRY(lbTrace);
    in_.lbProfileStatus->lbProfileStatusEntryDelAll();
    freeLbId_ = FreeIdQueue(in_.maxLbIndex);
    navRuleStatus_.initialize();
    siteGroups_.initialize();
    initialized_ = true;
    profiles_.initialize();
}

void LbProfileSm::doCleanup() {
    navRuleStatus_.clear();
    siteGroups_.clear();
    profiles_.clear();
    in_.lbProfileStatus->lbProfileStatusEntryDelAll();
}

// ---- the primitives on one key ----

void LbProfileSm::createLbIdStatus(const LbProfileKey& key, const Vel::String& lbName) {
    DUOLOG(lbTrace, 7, "LbKey: ", key, " lbName: ", lbName);
    if (!in_.cliConfig->loadBalanceProfile(lbName)) return;
    LbProfileStatusEntry* status = in_.lbProfileStatus->lbProfileStatusEntry(key);
    LbNameToLbKeySet& keySet = in_.navDb->lbNameToLbKeySetIs(lbName);
    if (!status) {
        const bool freeLbIds = !freeLbId_.empty();
        VEL_ASSERT(freeLbIds, "freeLbIds()");
        const U16 id = freeLbIdDeq();
        apps_[appOf(key)].sites.insert(key.vtepIp);
        status = &in_.lbProfileStatus->lbProfileStatusEntryIs(key);
        status->lbIndexIs(id);
        DUOLOG(lbTrace, 7, "LbId: ", id);
    }
    keySet.lbKeyIs(key);  // also if it was made for another profile
    const auto* profile = in_.cliConfig->loadBalanceProfile(constraintsFrom(key, lbName));
    status->latencyIs(profile->latency());
    status->jitterIs(profile->jitter());
    status->lossRateIs(profile->lossRate());
}

void LbProfileSm::deleteLbIdStatus(const LbProfileKey& key, const Vel::String& lbName) {
    DUOLOG(lbTrace, 7, "Deleting LbKey: ", key);
    const auto app = apps_.find(appOf(key));
    if (app != apps_.end()) app->second.sites.erase(key.vtepIp);
    if (const auto* status = in_.lbProfileStatus->lbProfileStatusEntry(key)) {
        freeLbIdEnq(status->lbIndex());
        in_.lbProfileStatus->lbProfileStatusEntryDel(key);
    }
    if (auto* keySet = in_.navDb->lbNameToLbKeySet(lbName)) keySet->lbKeyDel(key);
    if (app == apps_.end()) return;
    for (const auto& [rule, vrf] : app->second.rules)
        if (auto* keySet = in_.navDb->lbNameToLbKeySet(rule.lbProfileName)) keySet->lbKeyDel(key);
    if (app->second.rules.empty() && app->second.sites.empty()) apps_.erase(app);
}

void LbProfileSm::addLbIdPath(const LbProfileKey& key, const Vel::String& lbName,
                              const Vel::String& pgName, U32 pathIndex) {
    const auto* lbProfileConfig = in_.cliConfig->loadBalanceProfile(lbName);
    VEL_ASSERT(lbProfileConfig, "!!lbProfileConfig");
    auto* lbProfileStatusEntry = in_.lbProfileStatus->lbProfileStatusEntry(key);
    VEL_ASSERT(lbProfileStatusEntry, "!!lbProfileStatusEntry");
    const U32* listed = lbProfileConfig->pathGroupPriority(pgName);
    const U32 priority = listed ? *listed : 0;
    DUOLOG(lbTrace, 8, "LbKey: ", key, " lbName: ", lbName, " pgName: ", pgName,
           " pathIndex: ", pathIndex, " priority: ", priority);
    lbProfileStatusEntry->pathEntryIs({pathIndex, priority, pgName});
}

void LbProfileSm::deleteLbIdPath(const LbProfileKey& key, U32 pathIndex) {
    auto* lbProfileStatusEntry = in_.lbProfileStatus->lbProfileStatusEntry(key);
    VEL_ASSERT(lbProfileStatusEntry, "!!lbProfileStatusEntry");
    DUOLOG(lbTrace, 7, "LbKey: ", key, " pathIndex: ", pathIndex);
    lbProfileStatusEntry->pathEntryDel(pathIndex);
}

void LbProfileSm::updateLbIdGenId(const LbProfileKey& key, const Vel::String&) {
    auto* lbProfileStatusEntry = in_.lbProfileStatus->lbProfileStatusEntry(key);
    VEL_ASSERT(lbProfileStatusEntry, "!!lbProfileStatusEntry");
    DUOLOG(lbTrace, 7, "LbKey: ", key);
    const U32 genId = lbProfileStatusEntry->genId();
    lbProfileStatusEntry->genIdIs(genId + 1);
    DUOLOG(lbTrace, 7, "oldGenId: ", genId);
}

void LbProfileSm::updateLbIdPath(const LbProfileKey& key, const Vel::String& lbName,
                                 const Vel::String& pgName, U32 pathIndex, bool remove) {
    const auto* status = in_.lbProfileStatus->lbProfileStatusEntry(key);
    if (remove && !status) return;  // a removal allocates nothing
    createLbIdStatus(key, lbName);
    if (remove) {
        DUOLOG(lbTrace, 7, "Delete path, SiteIp: ", key.vtepIp, " App Profile Id: ", key.appId,
               " Vrf Id: ", key.vrfId);
        // A path that moved to another group meanwhile is that group's member now.
        const auto* member = status->pathEntry(pathIndex);
        if (!member || member->groupName == pgName) deleteLbIdPath(key, pathIndex);
    } else {
        DUOLOG(lbTrace, 7, "Add path, SiteIp: ", key.vtepIp, " App Profile Id: ", key.appId,
               " Vrf Id: ", key.vrfId);
        addLbIdPath(key, lbName, pgName, pathIndex);
    }
    updateLbIdGenId(key, lbName);
}

// ---- which rules there are, and which of them governs ----

U32 LbProfileSm::vrfIdOf(const L3::VrfName& vrf) const {
    const U32* id = in_.navDb->vrfNameToId(vrf);
    return id ? *id : 0;
}

void LbProfileSm::enterRule(const NavRuleEntry& entry, const L3::VrfName& vrf) {
    auto [known, isNew] = entered_[vrf].try_emplace(entry, vrfIdOf(vrf));
    if (isNew) apps_[{known->second, entry.appProfileId}].rules.emplace(entry, vrf);
}

// The id under which the rule was entered; that of the VRF if it was not.
U32 LbProfileSm::enteredVrfId(const NavRuleEntry& entry, const L3::VrfName& vrf) const {
    if (const auto rules = entered_.find(vrf); rules != entered_.end())
        if (const auto rule = rules->second.find(entry); rule != rules->second.end())
            return rule->second;
    return vrfIdOf(vrf);
}

void LbProfileSm::leaveRule(const NavRuleEntry& entry, const L3::VrfName& vrf, U32 vrfId) {
    if (const auto rules = entered_.find(vrf); rules != entered_.end()) {
        rules->second.erase(entry);
        if (rules->second.empty()) entered_.erase(rules);
    }
    if (const auto app = apps_.find({vrfId, entry.appProfileId}); app != apps_.end())
        app->second.rules.erase({entry, vrf});
}

const LoadBalanceProfile* LbProfileSm::profileListing(const Vel::String& lbName,
                                                      const Vel::String& pgName) const {
    const auto* profile = in_.cliConfig->loadBalanceProfile(lbName);
    return profile && profile->pathGroupPriority(pgName) ? profile : nullptr;
}

const LbProfileSm::Rule* LbProfileSm::governing(const VrfAppKey& key,
                                                const Vel::String& pgName) const {
    const auto app = apps_.find(key);
    if (app == apps_.end()) return nullptr;
    for (const Rule& rule : app->second.rules)
        if (profileListing(rule.first.lbProfileName, pgName)) return &rule;
    return nullptr;
}

bool LbProfileSm::isShared(const VrfAppKey& key) const {
    const auto app = apps_.find(key);
    return app != apps_.end() && app->second.rules.size() > 1;
}

// The profile that gives a key its constraints: that of the first rule that governs a group of the
// site, which for the one rule of an application is the rule's own.
const Vel::String& LbProfileSm::constraintsFrom(const LbProfileKey& key,
                                                const Vel::String& lbName) const {
    const auto app = apps_.find(appOf(key));
    if (app == apps_.end()) return lbName;
    const auto& rules = app->second.rules;
    if (rules.size() == 1 && rules.begin()->first.lbProfileName == lbName) return lbName;
    for (const auto& [rule, vrf] : rules)
        if (const auto* profile = in_.cliConfig->loadBalanceProfile(rule.lbProfileName))
            for (const auto& [pgName, priority] : profile->pathGroupPriority())
                if (in_.siteGroupStatus->siteGroupStatusEntry({pgName, key.vtepIp}))
                    return rule.lbProfileName;
    return lbName;
}

bool LbProfileSm::isGoverned(const LbProfileKey& key) const {
    const auto app = apps_.find(appOf(key));
    if (app == apps_.end()) return false;
    for (const auto& [rule, vrf] : app->second.rules)
        if (const auto* profile = in_.cliConfig->loadBalanceProfile(rule.lbProfileName))
            for (const auto& [pgName, priority] : profile->pathGroupPriority())
                if (in_.siteGroupStatus->siteGroupStatusEntry({pgName, key.vtepIp})) return true;
    return false;
}

// ---- reactions to rules ----

void LbProfileSm::ruleChanged(const NavRuleEntry& entry, const L3::VrfName& vrf) {
    if (!initialized_) return;
    const NavRuleStatus* status = in_.navStatusDir->navRuleStatus(vrf);
    if (status && status->navRuleEntryHas(entry)) enterRule(entry, vrf);
    handleNavRuleEntry(entry, vrf, enteredVrfId(entry, vrf));
}

void LbProfileSm::handleNavRuleEntry(const NavRuleEntry& rule, const L3::VrfName& vrf, U32 vrfId) {
    const NavRuleEntry entry = rule;
    DUOLOG(lbTrace, 7, "NavRuleEntry: ", entry, " vrf: ", vrf, " vrfId: ", vrfId);
    const NavRuleStatus* status = in_.navStatusDir->navRuleStatus(vrf);
    const bool removed = !status || !status->navRuleEntryHas(entry);
    if (removed) leaveRule(entry, vrf, vrfId);
    const VrfAppKey app{vrfId, entry.appProfileId};
    in_.navDb->lbNameToLbKeySetIs(entry.lbProfileName);

    for (SiteGroupStatusEntry& siteGroup : in_.siteGroupStatus->siteGroupStatusEntry()) {
        const auto& [pgName, vtepIp] = siteGroup.key();
        DUOLOG(lbTrace, 7, "vtep ip: ", vtepIp, " pgName: ", pgName);
        const LbProfileKey key = keyOf(vtepIp, app);
        if (const Rule* governs = governing(app, pgName)) {
            addSiteGroup(key, governs->first.lbProfileName, siteGroup);
        } else if (removed && profileListing(entry.lbProfileName, pgName) && !isGoverned(key)) {
            DUOLOG(lbTrace, 7, "Delete lbId: ", key);
            deleteLbIdStatus(key, entry.lbProfileName);
        } else {
            DUOLOG(lbTrace, 7, "pgName: ", pgName,
                   " not part of lbConfig or no valid lbConfig for lbName");
            removeSiteGroup(key, entry.lbProfileName, siteGroup);
        }
    }
    if (removed) releaseUngoverned(app, entry.lbProfileName);
}

void LbProfileSm::addSiteGroup(const LbProfileKey& key, const Vel::String& lbName,
                               const SiteGroupStatusEntry& siteGroup) {
    DUOLOG(lbTrace, 7, "Add lbId: ", key);
    createLbIdStatus(key, lbName);
    for (U32 pathIndex : siteGroup.pathIndexEntry())
        addLbIdPath(key, lbName, siteGroup.key().name, pathIndex);
    if (!siteGroup.pathIndexEntry().empty()) updateLbIdGenId(key, lbName);
}

void LbProfileSm::removeSiteGroup(const LbProfileKey& key, const Vel::String& lbName,
                                  const SiteGroupStatusEntry& siteGroup) {
    if (!in_.lbProfileStatus->lbProfileStatusEntry(key)) return;
    for (U32 pathIndex : siteGroup.pathIndexEntry())
        updateLbIdPath(key, lbName, siteGroup.key().name, pathIndex, true);
}

// After a rule went: what none of the others holds is released, sites that have vanished included,
// and a profile that no rule of the application names any more lets go of its keys.
void LbProfileSm::releaseUngoverned(const VrfAppKey& appKey, const Vel::String& lbName) {
    const auto app = apps_.find(appKey);
    if (app == apps_.end()) return;
    const auto& rules = app->second.rules;
    const bool isNamed = std::any_of(rules.begin(), rules.end(), [&](const auto& rule) {
        return rule.first.lbProfileName == lbName;
    });
    auto* keySet = in_.navDb->lbNameToLbKeySet(lbName);
    for (const Netz::IpGenAddr& site : std::set<Netz::IpGenAddr>(app->second.sites)) {
        const LbProfileKey key = keyOf(site, appKey);
        if (!isGoverned(key))
            deleteLbIdStatus(key, lbName);
        else if (!isNamed && keySet)
            keySet->lbKeyDel(key);
    }
    if (const auto left = apps_.find(appKey);
        left != apps_.end() && left->second.rules.empty() && left->second.sites.empty())
        apps_.erase(left);
}

// Rules of one application that name the same profile are one: the first stands for all.
void LbProfileSm::handleLbNavRuleEntries(const Vel::String& profileName) {
    const Vel::String lbName = profileName;
    DUOLOG(lbTrace, 8, "LbName: ", lbName);
    in_.navDb->lbNameToLbKeySetIs(lbName);
    for (NavRuleStatus& status : in_.navStatusDir->navRuleStatus()) {
        for (const NavRuleEntry& entry : status.navRuleEntry()) {
            if (entry.lbProfileName != lbName) continue;
            const U32 vrfId = enteredVrfId(entry, status.name());
            const auto app = apps_.find({vrfId, entry.appProfileId});
            if (app == apps_.end()) continue;
            const auto& rules = app->second.rules;
            const auto first = std::find_if(rules.begin(), rules.end(), [&](const auto& rule) {
                return rule.first.lbProfileName == lbName;
            });
            if (first != rules.end() && *first == Rule(entry, status.name()))
                handleNavRuleEntry(entry, status.name(), vrfId);
        }
    }
}

// ---- reactions to site groups and profiles ----

void LbProfileSm::sitePathChanged(const SiteGroupKey& siteGroup, U32 pathIndex, bool remove) {
    if (!initialized_) return;
    for (const NavRuleStatus& status : in_.navStatusDir->navRuleStatus()) {
        DUOLOG(lbTrace, 7, "Vrf: ", status.name());
        handleVrfLbIdStatus(siteGroup, pathIndex, status.name(), remove);
    }
}

// Where rules share a key, another one may come first now and give it its constraints.
void LbProfileSm::siteGroupGone(const SiteGroupKey& siteGroup) {
    if (!initialized_) return;
    for (const NavRuleStatus& status : in_.navStatusDir->navRuleStatus()) {
        for (const NavRuleEntry& entry : status.navRuleEntry()) {
            const VrfAppKey app{enteredVrfId(entry, status.name()), entry.appProfileId};
            if (!isShared(app) || !profileListing(entry.lbProfileName, siteGroup.name)) continue;
            const LbProfileKey key = keyOf(siteGroup.routerIp, app);
            if (in_.lbProfileStatus->lbProfileStatusEntry(key) && isGoverned(key))
                createLbIdStatus(key, entry.lbProfileName);
        }
    }
}

// The rule that governs the group acts, so that one change counts once however many rules share
// the key.
void LbProfileSm::handleVrfLbIdStatus(const SiteGroupKey& siteGroup, U32 pathIndex,
                                      const L3::VrfName& vrf, bool remove) {
    DUOLOG_ENTRY(lbTrace);
    const NavRuleStatus* status = in_.navStatusDir->navRuleStatus(vrf);
    if (!status) return;
    for (const NavRuleEntry& entry : status->navRuleEntry()) {
        const VrfAppKey app{enteredVrfId(entry, vrf), entry.appProfileId};
        const Rule* governs = governing(app, siteGroup.name);
        if (governs && governs->first == entry && governs->second == vrf)
            updateLbIdPath(keyOf(siteGroup.routerIp, app), entry.lbProfileName, siteGroup.name,
                           pathIndex, remove);
    }
}

void LbProfileSm::constraintsChanged(const Vel::String& lbName) {
    auto* lbNameToLbKeySet = in_.navDb->lbNameToLbKeySet(lbName);
    VEL_ASSERT(lbNameToLbKeySet, "lbNameToLbKeySet");
    for (const LbProfileKey& key : lbNameToLbKeySet->lbKey()) createLbIdStatus(key, lbName);
    for (const LbProfileKey& key : lbNameToLbKeySet->lbKey()) updateLbIdGenId(key, lbName);
}

void LbProfileSm::profileDeleted(const Vel::String& profileName) {
    if (!initialized_) return;
    const Vel::String lbName = profileName;
    auto* keySet = in_.navDb->lbNameToLbKeySet(lbName);
    if (!keySet) return;
    std::set<VrfAppKey> shared;
    for (const LbProfileKey& key : keySet->lbKey()) {
        if (!isGoverned(key)) {
            deleteLbIdStatus(key, lbName);
            continue;
        }
        keySet->lbKeyDel(key);
        shared.insert(appOf(key));
    }
    // Where another rule holds the key, it takes over what the profile governed.
    for (const VrfAppKey& app : shared) {
        const Rule rule = *apps_.at(app).rules.begin();
        handleNavRuleEntry(rule.first, rule.second, app.vrfId);
    }
}

}  // namespace Nav
