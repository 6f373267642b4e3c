// The load-balance profile reactor: allocates a small id for every (site, application, VRF) that
// some rule needs, and publishes its member paths, their priorities, and a generation that is
// raised with every change.
//
// For every rule of a bound VRF whose profile exists, and every site group whose path group that
// profile lists, the key (site, the rule's application, the VRF's id) has an id, and the paths of
// that site group are members with the group's priority in the profile. Rules with the same
// application id share its keys; LbWanted.h says which of them governs. A member is removed when no
// rule governs its path group any more. The id is released when a rule or profile is removed and no
// other rule governs a path group of the site. A VRF's rules are entered under the id that the VRF
// has at that time, and removed under the same id.
//
// Ids are allocated in the order of release, oldest first. A site whose last site group is removed
// keeps its ids. When a rule needs an id and none is free, the keys of vanished sites are released,
// in the order in which the sites vanished; if there are none, all keys that no rule wants any more
// although their site has not vanished. If there are none either, the process stops.
//
// Nested changes: a subscriber may change any input while this reactor publishes. The reaction to
// that change runs first and to its end. Every reaction is counted, and a step that finds the count
// changed after a notification reads the inputs again before it continues. Each reaction raises a
// generation once, however often it reads the inputs.
//
// Owned by the container, which has one. doCleanup() removes everything published.
#pragma once

#include <set>

#include "nav/config/NavCliConfig.h"
#include "nav/lb/LbKeys.h"
#include "nav/lb/LbRules.h"
#include "nav/lb/LbWanted.h"
#include "nav/types/FreeIdQueue.h"
#include "nav/types/NavDb.h"
#include "nav/types/NavStatusDir.h"
#include "platform/vel/Reactor.h"

namespace Nav {

class NAV_EXPORT LbProfileSm final : public Vel::Reactor {
  public:
    static constexpr std::string_view name = "Nav::LbProfileSm";
    struct Inputs {
        Vel::Input<NavStatusDir> navStatusDir;        // read
        Vel::Input<SiteGroupStatus> siteGroupStatus;  // read
        Vel::Input<NavCliConfig> cliConfig;           // read
        Vel::Input<NavDb> navDb;
        Vel::Input<LbProfileStatus> lbProfileStatus;
        U16 maxLbIndex = 0;  // the highest id allocated
    };

    explicit LbProfileSm(const Inputs& inputs);
    const Inputs& inputs() const { return in_; }

    void handleInitialized() override;
    void doCleanup() override;

    bool initialized() const { return initialized_; }

    // The primitives on one key. A primitive whose status entry or profile is missing stops the
    // process.

    // Ensures that the key has an id, if the profile exists, and copies the constraints. REQUIRES:
    // an id is free or the key has one.
    void createLbIdStatus(const LbProfileKey& key, const Vel::String& lbName);
    // Releases the id and removes the entry. The key leaves the key set of every profile.
    void deleteLbIdStatus(const LbProfileKey& key, const Vel::String& lbName);
    void addLbIdPath(const LbProfileKey& key, const Vel::String& lbName, const Vel::String& pgName,
                     U32 pathIndex);
    void deleteLbIdPath(const LbProfileKey& key, U32 pathIndex);
    void updateLbIdGenId(const LbProfileKey& key, const Vel::String& lbName);
    // Adds or removes one path and raises the generation, whether that changed anything or not. A
    // removal allocates no id. Returns false if another reaction ran before the generation was
    // raised: decide again.
    bool updateLbIdPath(const LbProfileKey& key, const Vel::String& lbName,
                        const Vel::String& pgName, U32 pathIndex, bool remove);

    // Removes and returns the id that has been free longest; 0 if none is free.
    U16 freeLbIdDeq() { return freeLbId_.deq(); }
    // REQUIRES: id was taken with freeLbIdDeq() and not returned since.
    void freeLbIdEnq(U16 id) { freeLbId_.enq(id); }
    bool freeLbIds() const { return !freeLbId_.empty(); }

    // Makes the keys of one rule of one VRF agree with the site groups and profiles.
    void handleNavRuleEntry(const NavRuleEntry& entry, const L3::VrfName& vrf, U32 vrfId);
    // The same for every rule, in every VRF, that uses the profile.
    void handleLbNavRuleEntries(const Vel::String& lbName);
    // Applies a change of one path of a site group to one VRF.
    void handleVrfLbIdStatus(const SiteGroupKey& siteGroup, U32 pathIndex, const L3::VrfName& vrf,
                             bool remove);

  private:
    class VelNavRuleStatus;
    class VelSiteGroupStatusEntry;
    class VelLoadBalanceProfile;

    LbProfileStatusEntry* statusOf(const LbProfileKey& key) const;
    // REQUIRES: the key has a status entry.
    LbProfileStatusEntry& existing(const LbProfileKey& key) const;
    LbWanted wanted(const LbProfileKey& key) const;
    bool isMember(const LbProfileKey& key, const Vel::String& pgName, U32 pathIndex) const;
    bool isUsable(const SiteGroupKey& siteGroup, U32 pathIndex) const;

    U32 vrfIdOf(const L3::VrfName& vrf) const;
    U32 enteredVrfId(const NavRuleEntry& entry, const L3::VrfName& vrf) const;
    bool isListed(const NavRuleEntry& entry, const L3::VrfName& vrf) const;
    void ruleChanged(const NavRuleEntry& rule, const L3::VrfName& vrf);
    void rulesDeleted(const L3::VrfName& vrf);
    void releaseUnwanted(const VrfAppKey& app, const Vel::String& lbName);

    // Steps. They return false if another reaction ran before they were done: decide again.
    bool applyRule(const NavRuleEntry& entry, bool removed, const VrfAppKey& app,
                   const SiteGroupStatusEntry& siteGroup);
    bool addSiteGroup(const LbProfileKey& key, const Vel::String& lbName,
                      const SiteGroupStatusEntry& siteGroup);
    bool removeSiteGroup(const LbProfileKey& key, const Vel::String& lbName,
                         const SiteGroupStatusEntry& siteGroup);
    bool ensureLbId(const LbProfileKey& key, const Vel::String& lbName);
    bool removePath(LbProfileStatusEntry& status, const Vel::String& pgName, U32 pathIndex);

    void deletePath(LbProfileStatusEntry& status, U32 pathIndex);
    void raiseGeneration(LbProfileStatusEntry& status);
    void releaseUnneeded();
    void refreshConstraints(const LbProfileKey& key, const Vel::String& lbName);
    void sitePathChanged(const SiteGroupKey& siteGroup, U32 pathIndex);
    void siteGroupDeleted(const SiteGroupKey& siteGroup, const std::set<U32>& paths);
    void constraintsChanged(const Vel::String& lbName);
    void profileDeleted(const Vel::String& lbName);

    Inputs in_;
    bool initialized_ = false;  // from handleInitialized() to doCleanup()
    FreeIdQueue freeLbId_;      // the ids that no status entry has
    LbRules rules_;             // the rules in the rule statuses
    LbKeys keys_;               // the keys that have a status entry
    U64 reactions_ = 0;         // number of reactions begun

    Vel::EntryReactorsOf<VelNavRuleStatus, decltype(NavStatusDir::navRuleStatusAttr)>
        navRuleStatus_;
    Vel::EntryReactorsOf<VelSiteGroupStatusEntry,
                         decltype(SiteGroupStatus::siteGroupStatusEntryAttr)>
        siteGroups_;
    Vel::EntryReactorsOf<VelLoadBalanceProfile, decltype(NavCliConfig::loadBalanceProfileAttr)>
        profiles_;
};
VEL_INPUTS(LbProfileSm::Inputs, navStatusDir, siteGroupStatus, cliConfig, navDb, lbProfileStatus,
           maxLbIndex)

}  // namespace Nav
