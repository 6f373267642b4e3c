#include "nav/lb/NavLbSm.h"

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

    // At start the rules are only recorded; initialising the profiles then creates their keys.
    void handleInitialized() {
        DUOLOG_ENTRY(lbTrace);
        for (const NavRuleEntry& entry : status_.navRuleEntry()) {
            if (owner_.initialized_)
                handleNavVrfRuleEntry(entry);
            else
                owner_.rules_.enter(entry, status_.name(), owner_.vrfIdOf(status_.name()));
        }
    }
    void handleNavVrfRuleEntry(const NavRuleEntry& entry) {
        DUOLOG_ENTRY(lbTrace);
        DUOLOG(lbTrace, 7, "NavRuleEntry: ", entry);
        owner_.ruleChanged(entry, status_.name());
    }
    void handleNavRuleStatusDelete() {
        DUOLOG_ENTRY(lbTrace);
        owner_.rulesDeleted(status_.name());
    }
    void handleDelete() { handleNavRuleStatusDelete(); }

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

    // At start the keys take these paths when their rules are applied. A later entry is new and has
    // no paths, unless a subscriber added some before this reactor was created.
    void handleInitialized() {
        DUOLOG_ENTRY(lbTrace);
        initialized_ = true;
        owner_.keys_.siteGroupAdded(entry_.key().routerIp);
        for (U32 pathIndex : entry_.pathIndexEntry()) applyPath(pathIndex);
    }
    void handleSiteGroupPathEntry(const U32& pathIndex) {
        DUOLOG_ENTRY(lbTrace);
        if (!owner_.initialized_) return;
        DUOLOG(lbTrace, 7, "PathIndex: ", pathIndex);
        auto* siteEntry = owner_.in_.siteGroupStatus->siteGroupStatusEntry(entry_.key());
        VEL_ASSERT(siteEntry, "!!siteEntry");
        applyPath(pathIndex);
    }
    void handleSiteGroupClear() {
        DUOLOG_ENTRY(lbTrace);
        if (!initialized_) return;
        for (U32 pathIndex : entry_.pathIndexEntry()) applied_.insert(pathIndex);
        owner_.siteGroupDeleted(entry_.key(), applied_);
    }
    void handleDelete() { handleSiteGroupClear(); }

  private:
    void applyPath(U32 pathIndex) {
        if (entry_.pathIndexEntryHas(pathIndex))
            applied_.insert(pathIndex);
        else
            applied_.erase(pathIndex);
        owner_.sitePathChanged(entry_.key(), pathIndex);
    }

    LbProfileSm& owner_;
    SiteGroupStatusEntry& entry_;
    // The paths that were added to keys. When the entry is deleted while the removal of one of its
    // paths is being announced, only this set still contains the path.
    std::set<U32> applied_;
    bool initialized_ = false;
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
        DUOLOG(lbTrace, 8, "LbName: ", profile_.profileName(), " pgName: ", pgName);
        if (!initialized_) return;
        owner_.handleLbNavRuleEntries(profile_.profileName());
    }
    void handleLbConstraints() {
        DUOLOG_ENTRY(lbTrace);
        if (!initialized_) return;
        owner_.constraintsChanged(profile_.profileName());
    }
    void handleLoadBalanceProfileDelete() {
        DUOLOG_ENTRY(lbTrace);
        owner_.profileDeleted(profile_.profileName());
    }
    void handleDelete() { handleLoadBalanceProfileDelete(); }

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
    DUOLOG_ENTRY(lbTrace);
    if (initialized_) {
        DUOLOG(lbTrace, 8, "handleInitialized", ":", "already initialized");
        return;
    }
    in_.lbProfileStatus->lbProfileStatusEntryDelAll();
    freeLbId_ = FreeIdQueue(in_.maxLbIndex);
    navRuleStatus_.initialize();
    siteGroups_.initialize();
    initialized_ = true;
    profiles_.initialize();
}

void LbProfileSm::doCleanup() {
    DUOLOG_ENTRY(lbTrace);
    ++reactions_;
    initialized_ = false;
    navRuleStatus_.clear();
    siteGroups_.clear();
    profiles_.clear();
    rules_.clear();
    keys_.clear();
    in_.lbProfileStatus->lbProfileStatusEntryDelAll();
}

// ---- operations on one key ----

// Null after cleanup: the entries may belong to a successor of this reactor.
LbProfileStatusEntry* LbProfileSm::statusOf(const LbProfileKey& key) const {
    return initialized_ ? in_.lbProfileStatus->lbProfileStatusEntry(key) : nullptr;
}

LbWanted LbProfileSm::wanted(const LbProfileKey& key) const {
    return {rules_.of(appOf(key)), *in_.cliConfig, *in_.siteGroupStatus, key.vtepIp};
}

LbProfileStatusEntry& LbProfileSm::existing(const LbProfileKey& key) const {
    auto* lbProfileStatusEntry = statusOf(key);
    VEL_ASSERT(lbProfileStatusEntry, "!!lbProfileStatusEntry");
    return *lbProfileStatusEntry;
}

void LbProfileSm::createLbIdStatus(const LbProfileKey& key, const Vel::String& lbName) {
    DUOLOG(lbTrace, 7, "LbKey: ", key, " lbName: ", lbName);
    const LoadBalanceProfile* profile = in_.cliConfig->loadBalanceProfile(lbName);
    if (!profile) return;
    const U64 turn = reactions_;
    LbProfileStatusEntry* status = statusOf(key);
    LbNameToLbKeySet& keySet = in_.navDb->lbNameToLbKeySetIs(lbName);
    if (!status) {
        VEL_ASSERT(freeLbIds(), "freeLbIds()");
        const U16 id = freeLbIdDeq();
        keys_.add(key, keySet);
        status = &in_.lbProfileStatus->lbProfileStatusEntryIs(
            key, [id](LbProfileStatusEntry& made) { made.lbIndexIs(id); });
        DUOLOG(lbTrace, 7, "LbId: ", id);
    } else if (!keySet.lbKeyHas(key) && wanted(key).wantedBy(lbName)) {
        keys_.add(key, keySet);  // the key was created for another profile
    }
    // If the application has only this rule, the search for the governing rule is not needed.
    const LbRules::Rules& rules = rules_.of(appOf(key));
    if (rules.size() != 1 || rules.begin()->entry.lbProfileName != lbName)
        if (const auto* first = wanted(key).constraints()) profile = first;
    status->latencyIs(profile->latency());
    if (reactions_ == turn) status->jitterIs(profile->jitter());
    if (reactions_ == turn) status->lossRateIs(profile->lossRate());
}

void LbProfileSm::deleteLbIdStatus(const LbProfileKey& key, const Vel::String&) {
    DUOLOG(lbTrace, 7, "Deleting LbKey: ", key);
    keys_.remove(key);
    if (const auto* status = statusOf(key)) {
        freeLbIdEnq(status->lbIndex());
        in_.lbProfileStatus->lbProfileStatusEntryDel(key);
    }
}

void LbProfileSm::addLbIdPath(const LbProfileKey& key, const Vel::String& lbName,
                              const Vel::String& pgName, U32 pathIndex) {
    const auto* lbProfileConfig = in_.cliConfig->loadBalanceProfile(lbName);
    VEL_ASSERT(lbProfileConfig, "!!lbProfileConfig");
    LbProfileStatusEntry& status = existing(key);
    const U32* listed = lbProfileConfig->pathGroupPriority(pgName);
    const U32 priority = listed ? *listed : 0;
    DUOLOG(lbTrace, 8, "LbKey: ", key, " lbName: ", lbName, " pgName: ", pgName,
           " pathIndex: ", pathIndex, " priority: ", priority);
    status.pathEntryIs({pathIndex, priority, pgName});
}

void LbProfileSm::deleteLbIdPath(const LbProfileKey& key, U32 pathIndex) {
    deletePath(existing(key), pathIndex);
}

void LbProfileSm::deletePath(LbProfileStatusEntry& status, U32 pathIndex) {
    DUOLOG(lbTrace, 7, "LbKey: ", status.key(), " pathIndex: ", pathIndex);
    status.pathEntryDel(pathIndex);
}

void LbProfileSm::updateLbIdGenId(const LbProfileKey& key, const Vel::String&) {
    raiseGeneration(existing(key));
}

void LbProfileSm::raiseGeneration(LbProfileStatusEntry& status) {
    DUOLOG(lbTrace, 7, "LbKey: ", status.key());
    const U32 genId = status.genId();
    status.genIdIs(genId + 1);
    DUOLOG(lbTrace, 7, "oldGenId: ", genId);
}

bool LbProfileSm::updateLbIdPath(const LbProfileKey& key, const Vel::String& lbName,
                                 const Vel::String& pgName, U32 pathIndex, bool remove) {
    const U64 turn = reactions_;
    if (remove) {
        auto* status = statusOf(key);
        return !status || removePath(*status, pgName, pathIndex);
    }
    if (!ensureLbId(key, lbName)) return false;
    DUOLOG(lbTrace, 7, "Add path, SiteIp: ", key.vtepIp, " App Profile Id: ", key.appId,
           " Vrf Id: ", key.vrfId);
    addLbIdPath(key, lbName, pgName, pathIndex);
    if (reactions_ != turn) return false;
    updateLbIdGenId(key, lbName);
    return true;
}

bool LbProfileSm::removePath(LbProfileStatusEntry& status, const Vel::String& pgName,
                             U32 pathIndex) {
    const U64 turn = reactions_;
    const LbProfileKey& key = status.key();
    DUOLOG(lbTrace, 7, "Delete path, SiteIp: ", key.vtepIp, " App Profile Id: ", key.appId,
           " Vrf Id: ", key.vrfId);
    // A path that moved to another group is a member of that group now.
    const auto* member = status.pathEntry(pathIndex);
    if (!member || member->groupName == pgName) deletePath(status, pathIndex);
    if (reactions_ != turn) return false;
    raiseGeneration(status);
    return true;
}

// ---- allocation of ids ----

bool LbProfileSm::ensureLbId(const LbProfileKey& key, const Vel::String& lbName) {
    const U64 turn = reactions_;
    if (!freeLbIds() && !statusOf(key)) releaseUnneeded();
    if (reactions_ == turn) createLbIdStatus(key, lbName);
    return reactions_ == turn;
}

// Releases keys of vanished sites until an id is free. Without such a site it releases every key
// that no rule wants: its site has left the path groups of the profile, but not all path groups.
void LbProfileSm::releaseUnneeded() {
    while (!freeLbIds()) {
        const auto key = keys_.longestVanished();
        if (!key) break;
        deleteLbIdStatus(*key, {});
    }
    if (freeLbIds()) return;
    for (const LbProfileStatusEntry& status : in_.lbProfileStatus->lbProfileStatusEntry()) {
        const LbProfileKey key = status.key();
        if (!wanted(key).constraints()) deleteLbIdStatus(key, {});
    }
}

// Repeats while a subscriber of one constraint changes another.
void LbProfileSm::refreshConstraints(const LbProfileKey& key, const Vel::String& lbName) {
    for (U64 turn = reactions_ - 1; turn != reactions_ && statusOf(key);) {
        turn = reactions_;
        createLbIdStatus(key, lbName);
    }
}

// ---- reactions to rules ----

U32 LbProfileSm::vrfIdOf(const L3::VrfName& vrf) const {
    const U32* id = in_.navDb->vrfNameToId(vrf);
    return id ? *id : 0;
}

// The VRF id under which the rule was recorded; if it was not, the VRF's current id.
U32 LbProfileSm::enteredVrfId(const NavRuleEntry& entry, const L3::VrfName& vrf) const {
    const auto entered = rules_.vrfIdOf(entry, vrf);
    return entered ? *entered : vrfIdOf(vrf);
}

bool LbProfileSm::isListed(const NavRuleEntry& entry, const L3::VrfName& vrf) const {
    const NavRuleStatus* status = in_.navStatusDir->navRuleStatus(vrf);
    return status && status->navRuleEntryHas(entry);
}

// A rule that was removed and added again before this reactor was notified moves to the VRF's
// current id.
void LbProfileSm::ruleChanged(const NavRuleEntry& rule, const L3::VrfName& vrf) {
    if (!initialized_) return;
    const NavRuleEntry entry = rule;
    ++reactions_;
    const U32* vrfId = in_.navDb->vrfNameToId(vrf);
    if (const U32 entered = enteredVrfId(entry, vrf); vrfId && entered != *vrfId) {
        rules_.leave(entry, vrf);
        handleNavRuleEntry(entry, vrf, entered);
    }
    if (isListed(entry, vrf)) rules_.enter(entry, vrf, vrfIdOf(vrf));
    handleNavRuleEntry(entry, vrf, enteredVrfId(entry, vrf));
}

// All rules, including one whose own removal is still being announced, are removed from the index
// before anything is announced: a subscriber may bind the VRF again, under another id.
void LbProfileSm::rulesDeleted(const L3::VrfName& vrf) {
    if (!initialized_) return;
    ++reactions_;
    const auto rules = rules_.ofVrf(vrf);
    for (const auto& [entry, vrfId] : rules) rules_.leave(entry, vrf);
    for (const auto& [entry, vrfId] : rules) handleNavRuleEntry(entry, vrf, vrfId);
}

void LbProfileSm::handleNavRuleEntry(const NavRuleEntry& rule, const L3::VrfName& vrf, U32 vrfId) {
    DUOLOG_ENTRY(lbTrace);
    const NavRuleEntry entry = rule;
    DUOLOG(lbTrace, 7, "NavRuleEntry: ", entry, " vrf: ", vrf, " vrfId: ", vrfId);
    const bool listed = isListed(entry, vrf);
    if (!listed) rules_.leave(entry, vrf);
    const bool removed = !listed || enteredVrfId(entry, vrf) != vrfId;
    const VrfAppKey app{vrfId, entry.appProfileId};
    in_.navDb->lbNameToLbKeySetIs(entry.lbProfileName);

    for (SiteGroupStatusEntry& siteGroup : in_.siteGroupStatus->siteGroupStatusEntry())
        while (initialized_ && !applyRule(entry, removed, app, siteGroup) &&
               in_.siteGroupStatus->siteGroupStatusEntry(siteGroup.key()) == &siteGroup) {
        }
    if (removed) releaseUnwanted(app, entry.lbProfileName);
}

bool LbProfileSm::applyRule(const NavRuleEntry& entry, bool removed, const VrfAppKey& app,
                            const SiteGroupStatusEntry& siteGroup) {
    const auto& [pgName, vtepIp] = siteGroup.key();
    DUOLOG(lbTrace, 7, "vtep ip: ", vtepIp, " pgName: ", pgName);
    const LbProfileKey key = keyOf(vtepIp, app);
    if (const LbGovernor governs = wanted(key).governing(pgName))
        return addSiteGroup(key, governs.profile->profileName(), siteGroup);

    const auto* profile = in_.cliConfig->loadBalanceProfile(entry.lbProfileName);
    if (removed && profile && profile->pathGroupPriority(pgName) && !wanted(key).constraints()) {
        DUOLOG(lbTrace, 7, "Delete lbId: ", key);
        deleteLbIdStatus(key, entry.lbProfileName);
        return true;
    }
    DUOLOG(lbTrace, 7, "pgName: ", pgName, " not part of lbConfig or no valid lbConfig for lbName");
    return removeSiteGroup(key, entry.lbProfileName, siteGroup);
}

bool LbProfileSm::addSiteGroup(const LbProfileKey& key, const Vel::String& lbName,
                               const SiteGroupStatusEntry& siteGroup) {
    DUOLOG(lbTrace, 7, "Add lbId: ", key);
    const U64 turn = reactions_;
    if (!ensureLbId(key, lbName)) return false;
    for (U32 pathIndex : siteGroup.pathIndexEntry()) {
        addLbIdPath(key, lbName, siteGroup.key().name, pathIndex);
        if (reactions_ != turn) return false;
    }
    if (!siteGroup.pathIndexEntry().empty()) updateLbIdGenId(key, lbName);
    return true;
}

bool LbProfileSm::removeSiteGroup(const LbProfileKey& key, const Vel::String& lbName,
                                  const SiteGroupStatusEntry& siteGroup) {
    if (!statusOf(key)) return true;
    const auto& pgName = siteGroup.key().name;
    const U64 turn = reactions_;
    for (U32 pathIndex : siteGroup.pathIndexEntry()) {
        do {
            if (reactions_ != turn && wanted(key).governing(pgName)) return false;
        } while (!updateLbIdPath(key, lbName, pgName, pathIndex, true));
    }
    return true;
}

// Releases the keys that no other rule wants, including keys of vanished sites. The others are the
// profile's only as long as a rule of the application names it.
void LbProfileSm::releaseUnwanted(const VrfAppKey& app, const Vel::String& lbName) {
    for (const LbProfileKey& key : keys_.of(app))
        if (!wanted(key).constraints())
            deleteLbIdStatus(key, lbName);
        else if (!firstNaming(rules_.of(app), lbName))
            keys_.leave(key, in_.navDb->lbNameToLbKeySetIs(lbName));
}

// Rules of one application that name the same profile count as one: the first acts for all.
void LbProfileSm::handleLbNavRuleEntries(const Vel::String& profileName) {
    const Vel::String lbName = profileName;
    DUOLOG(lbTrace, 8, "LbName: ", lbName);
    ++reactions_;
    in_.navDb->lbNameToLbKeySetIs(lbName);
    for (NavRuleStatus& status : in_.navStatusDir->navRuleStatus()) {
        for (const NavRuleEntry& entry : status.navRuleEntry()) {
            if (entry.lbProfileName != lbName) continue;
            const U32 vrfId = enteredVrfId(entry, status.name());
            const LbRule* first = firstNaming(rules_.of({vrfId, entry.appProfileId}), lbName);
            if (first && *first == LbRule{entry, status.name()})
                handleNavRuleEntry(entry, status.name(), vrfId);
        }
    }
}

// ---- reactions to site groups and profiles ----

bool LbProfileSm::isUsable(const SiteGroupKey& siteGroup, U32 pathIndex) const {
    const auto* entry = in_.siteGroupStatus->siteGroupStatusEntry(siteGroup);
    return entry && entry->pathIndexEntryHas(pathIndex);
}

void LbProfileSm::sitePathChanged(const SiteGroupKey& siteGroup, U32 pathIndex) {
    if (!initialized_) return;
    const U64 turn = ++reactions_;
    const bool remove = !isUsable(siteGroup, pathIndex);
    for (const NavRuleStatus& status : in_.navStatusDir->navRuleStatus()) {
        // The reaction to a newer change of the path has already updated every key.
        if (reactions_ != turn && isUsable(siteGroup, pathIndex) == remove) return;
        DUOLOG(lbTrace, 7, "Vrf: ", status.name());
        handleVrfLbIdStatus(siteGroup, pathIndex, status.name(), remove);
    }
    if (!remove) return;
    // Keys of rules added above, or removed without this reactor having been notified yet.
    for (const LbProfileKey& key : keys_.of(siteGroup.routerIp))
        while (isMember(key, siteGroup.name, pathIndex) && !isUsable(siteGroup, pathIndex) &&
               !updateLbIdPath(key, {}, siteGroup.name, pathIndex, true)) {
        }
}

bool LbProfileSm::isMember(const LbProfileKey& key, const Vel::String& pgName,
                           U32 pathIndex) const {
    const auto* status = statusOf(key);
    const auto* member = status ? status->pathEntry(pathIndex) : nullptr;
    return member && member->groupName == pgName;
}

// Only the rule that governs the group acts, so that a change counts once even if several rules
// share the key. A group without a governing rule has members only while an outer reaction is
// still removing them.
void LbProfileSm::handleVrfLbIdStatus(const SiteGroupKey& siteGroup, U32 pathIndex,
                                      const L3::VrfName& vrf, bool remove) {
    DUOLOG_ENTRY(lbTrace);
    const NavRuleStatus* status = in_.navStatusDir->navRuleStatus(vrf);
    if (!status) return;
    const U64 turn = reactions_;
    const U32 vrfId = vrfIdOf(vrf);
    for (const NavRuleEntry& entry : status->navRuleEntry()) {
        for (bool done = false; !done;) {
            if (reactions_ != turn && isUsable(siteGroup, pathIndex) == remove) return;
            LbProfileKey key = keyOf(siteGroup.routerIp, {vrfId, entry.appProfileId});
            LbGovernor governs = wanted(key).governing(siteGroup.name);
            // A rule that governs under this id was entered under it.
            if (!governs.is(entry, vrf) && enteredVrfId(entry, vrf) != vrfId) {
                key.vrfId = enteredVrfId(entry, vrf);
                governs = wanted(key).governing(siteGroup.name);
            }
            const bool acts = governs ? governs.is(entry, vrf)
                                      : remove && isMember(key, siteGroup.name, pathIndex);
            done = !acts ||
                   updateLbIdPath(key, entry.lbProfileName, siteGroup.name, pathIndex, remove);
        }
    }
}

void LbProfileSm::siteGroupDeleted(const SiteGroupKey& siteGroup, const std::set<U32>& paths) {
    const Netz::IpGenAddr& routerIp = siteGroup.routerIp;
    keys_.siteGroupRemoved(routerIp);
    if (!initialized_) return;
    ++reactions_;
    for (U32 pathIndex : paths) sitePathChanged(siteGroup, pathIndex);
    // If rules share a key, another rule may now be the first and give the key its constraints.
    for (const LbProfileKey& key : keys_.of(routerIp)) {
        if (rules_.of(appOf(key)).size() < 2) continue;
        if (const auto* first = wanted(key).constraints())
            refreshConstraints(key, Vel::String(first->profileName()));
    }
}

void LbProfileSm::constraintsChanged(const Vel::String& lbName) {
    auto* lbNameToLbKeySet = in_.navDb->lbNameToLbKeySet(lbName);
    VEL_ASSERT(lbNameToLbKeySet, "lbNameToLbKeySet");
    ++reactions_;
    for (const LbProfileKey& key : lbNameToLbKeySet->lbKey()) refreshConstraints(key, lbName);
    for (const LbProfileKey& key : lbNameToLbKeySet->lbKey())
        if (initialized_) updateLbIdGenId(key, lbName);
}

void LbProfileSm::profileDeleted(const Vel::String& profileName) {
    if (!initialized_) return;
    ++reactions_;
    const Vel::String lbName = profileName;
    auto* keySet = in_.navDb->lbNameToLbKeySet(lbName);
    if (!keySet) return;
    std::set<VrfAppKey> shared;
    for (const LbProfileKey& key : keySet->lbKey()) {
        if (!wanted(key).constraints()) {
            deleteLbIdStatus(key, lbName);
        } else if (!wanted(key).wantedBy(lbName)) {
            keys_.leave(key, *keySet);
            shared.insert(appOf(key));
        }
    }
    // Another rule that wants the key now governs the groups that the profile governed.
    for (const VrfAppKey& app : shared) {
        const LbRules::Rules& rules = rules_.of(app);
        if (rules.empty()) continue;
        const LbRule rule = *rules.begin();
        handleNavRuleEntry(rule.entry, rule.vrf, app.vrfId);
    }
}

}  // namespace Nav
