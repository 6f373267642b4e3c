// The load-balance profile reactor: a small id for every (site, application, VRF) that some rule
// needs, with its member paths, their priorities, and a generation that moves with every change.
//
// For every rule of a bound VRF whose profile exists, and every site group whose path group that
// profile lists, the key (site, the rule's application, the VRF's id) has an id, and the paths of
// that site group are members with the group's priority in the profile.
//
// Rules that share an application id share its keys. For each path group the first rule in order
// of precedence whose profile exists and lists the group governs: it gives the priority, and the
// first rule that governs any of the site's groups gives the constraints. Members go when no rule
// governs their group any more; the id goes when a rule or profile goes and none governs any group
// of the key. A VRF's rules are entered under the id that the VRF has then, and leave under it.
//
// An id is free or used by exactly one key, and lasts as long as the key. Ids are handed out in
// order of release, oldest first; 0 is none. Running out of them stops the process.
//
// The container owns the one instance; what it published goes when it is cleaned up.
#pragma once

#include <map>
#include <set>
#include <unordered_map>

#include "nav/config/NavCliConfig.h"
#include "nav/types/FreeIdQueue.h"
#include "nav/types/NavDb.h"
#include "nav/types/NavStatusDir.h"
#include "platform/vel/Reactor.h"

namespace Nav {

class NAV_EXPORT LbProfileSm final : public Vel::Reactor {
  public:
    static constexpr const char* name = "LbProfileSm";
    struct Inputs {
        Vel::Input<NavStatusDir> navStatusDir;        // read
        Vel::Input<SiteGroupStatus> siteGroupStatus;  // read
        Vel::Input<NavCliConfig> cliConfig;           // read
        Vel::Input<NavDb> navDb;
        Vel::Input<LbProfileStatus> lbProfileStatus;
        U16 maxLbIndex = 0;  // the highest id handed out
    };

    explicit LbProfileSm(const Inputs& inputs);
    const Inputs& inputs() const { return in_; }

    void handleInitialized() override;
    void doCleanup() override;

    // The primitives on one key. The ones without a status entry to work on, and those without the
    // profile where its priorities are needed, stop the process.

    // Makes sure that the key has an id, if the profile exists, and copies the constraints.
    void createLbIdStatus(const LbProfileKey& key, const Vel::String& lbName);
    void deleteLbIdStatus(const LbProfileKey& key, const Vel::String& lbName);
    void addLbIdPath(const LbProfileKey& key, const Vel::String& lbName, const Vel::String& pgName,
                     U32 pathIndex);
    void deleteLbIdPath(const LbProfileKey& key, U32 pathIndex);
    void updateLbIdGenId(const LbProfileKey& key, const Vel::String& lbName);
    // One path in or out, and one generation further, whether that changed anything or not.
    void updateLbIdPath(const LbProfileKey& key, const Vel::String& lbName,
                        const Vel::String& pgName, U32 pathIndex, bool remove);

    U16 freeLbIdDeq() { return freeLbId_.deq(); }
    void freeLbIdEnq(U16 id) { freeLbId_.enq(id); }

    // Brings the keys of one rule of one VRF in line with the site groups and profiles.
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

    // The keys of one (VRF id, application): the rules that make them, in order of precedence, and
    // the sites that have one. (Two VRFs that report one id share.)
    using Rule = std::pair<NavRuleEntry, L3::VrfName>;
    struct App {
        std::set<Rule> rules;
        std::set<Netz::IpGenAddr> sites;
    };
    struct AppKeyHash {
        size_t operator()(const VrfAppKey& key) const { return Vel::Codec<VrfAppKey>::mix(key); }
    };

    U32 vrfIdOf(const L3::VrfName& vrf) const;
    U32 enteredVrfId(const NavRuleEntry& entry, const L3::VrfName& vrf) const;
    void enterRule(const NavRuleEntry& entry, const L3::VrfName& vrf);
    void leaveRule(const NavRuleEntry& entry, const L3::VrfName& vrf, U32 vrfId);
    void ruleChanged(const NavRuleEntry& entry, const L3::VrfName& vrf);

    const LoadBalanceProfile* profileListing(const Vel::String& lbName,
                                             const Vel::String& pgName) const;
    const Rule* governing(const VrfAppKey& app, const Vel::String& pgName) const;
    bool isShared(const VrfAppKey& app) const;  // by several rules
    bool isGoverned(const LbProfileKey& key) const;
    const Vel::String& constraintsFrom(const LbProfileKey& key, const Vel::String& lbName) const;
    void addSiteGroup(const LbProfileKey& key, const Vel::String& lbName,
                      const SiteGroupStatusEntry& siteGroup);
    void removeSiteGroup(const LbProfileKey& key, const Vel::String& lbName,
                         const SiteGroupStatusEntry& siteGroup);
    void releaseUngoverned(const VrfAppKey& app, const Vel::String& lbName);

    void sitePathChanged(const SiteGroupKey& siteGroup, U32 pathIndex, bool remove);
    void siteGroupGone(const SiteGroupKey& siteGroup);
    void constraintsChanged(const Vel::String& lbName);
    void profileDeleted(const Vel::String& lbName);

    Inputs in_;
    bool initialized_ = false;
    FreeIdQueue freeLbId_;
    std::unordered_map<VrfAppKey, App, AppKeyHash> apps_;
    // Under which VRF id each rule stands in apps_.
    std::unordered_map<L3::VrfName, std::map<NavRuleEntry, U32>> entered_;

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
