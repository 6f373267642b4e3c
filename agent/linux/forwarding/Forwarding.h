// Keeps the kernel's forwarding objects equal to the plan, so that the kernel forwards by the
// decisions of path selection.
//
// Changes are made in a task that runs after path selection has settled: one batch for all events
// before it. Only the paths of a link that fails are left at once, site by site: path selection has
// a thousand ids to review before it can say the same. Objects that somebody else removes or
// changes are restored. At start, the objects that a previous agent left are adopted: none of them
// is replaced or removed until path selection has found the paths again, so that traffic continues.
//
// Owned by the platform; on the event thread.
#pragma once

#include <functional>
#include <set>

#include "agent/linux/forwarding/Nftables.h"
#include "agent/linux/forwarding/Plan.h"
#include "agent/linux/forwarding/Ruleset.h"
#include "agent/linux/kernel/KernelMonitor.h"
#include "agent/linux/kernel/Netfilter.h"
#include "agent/linux/kernel/ObjectWriter.h"

namespace Agent::Linux {

class Forwarding {
  public:
    // Adoption ends after this time at the latest, even if some path has not come up.
    static constexpr Loom::Duration adoptionTime = std::chrono::seconds(5);
    // Delay between a change by somebody else and its repair, because one command causes many
    // events: deleting a device also removes its next hops and routes.
    static constexpr Loom::Duration settleTime = std::chrono::milliseconds(2);
    // Delay before others' routes are read and the rules replaced, which takes milliseconds: by
    // then path selection has settled, and the groups of failed paths are committed.
    static constexpr Loom::Duration rulesetDelay = std::chrono::milliseconds(1);
    // Paths that come up together enter their groups together: a flow that finds a group with the
    // first of them alone stays there as long as it has packets.
    static constexpr Loom::Duration newPathsDelay = std::chrono::milliseconds(2);
    // Groups are replaced and next hops removed for so long at a time, and at least one: the kernel
    // takes up to some milliseconds for each, since it waits for all processors, and other events
    // must not wait for all of them. They are handled in the pause.
    static constexpr Loom::Duration postponedTime = std::chrono::milliseconds(1);
    static constexpr Loom::Duration postponedPause = std::chrono::microseconds(100);
    // Delay before refused changes are tried again.
    static constexpr Loom::Duration retryTime = std::chrono::seconds(5);

    // The monitor must outlive this. `quality` is what is measured of the paths. `onProgrammed` is
    // called when the result of programmed() may have changed. Raises Vel::Error if the kernel's
    // objects cannot be read.
    Forwarding(const Nav::NavInputs& inputs, ForwardingPtr config, KernelMonitor& monitor,
               QualityStatus& quality, std::function<void()> onProgrammed);

    // The forwarding agent calls these when a path becomes usable, changes its next hop, or stops
    // being usable.
    void pathIs(uint32_t pathIndex, const PathHop& hop);
    void pathDel(uint32_t pathIndex);
    // The same when a secured path gets, changes or loses its next hop, whether or not usable.
    void securedIs(uint32_t pathIndex, const PathHop& hop);
    void securedDel(uint32_t pathIndex);
    // The number of the path's next hop; 0 until the kernel has acknowledged it in every segment.
    uint32_t programmed(uint32_t pathIndex);

    // The configuration has changed.
    void replan();
    void interfacesChanged();
    // A route or a next-hop object that the agent did not install has changed.
    void routeChanged(const Message& message);
    // Compares all objects with the kernel's and restores the difference.
    void repair();
    // The same after `settleTime`. The monitor calls it when somebody else has changed an object.
    void ownChanged();
    // Compares the kernel's objects and rules with a plan made afresh; changes nothing. A sentence
    // for each difference. Takes long and uses no socket of this.
    std::vector<std::string> differences(RequestSocket& requests) const;
    // Removes everything from the kernel.
    void clear();

    // Readable after any change of nftables; call handleTableReadable() then.
    int tableFd() const { return table_.fd(); }
    void handleTableReadable();

    Plan& plan() { return plan_; }
    const ObjectWriter& kernel() const { return kernel_; }
    const MemberChoice& choice() const { return choice_; }
    // The configured UDP port, while another program has it and the tunnels keep the one that they
    // have; 0 otherwise.
    uint16_t portInUse() const { return portInUse_; }
    // The reason for which nftables refused the rules; empty while they are in effect.
    const std::string& rulesetRefused() const { return rulesetRefused_; }

  private:
    struct VelSiteGroupStatusEntry final : Vel::Object {
        VelSiteGroupStatusEntry(Forwarding& forwarding, Nav::SiteGroupStatusEntry& entry);
        void handleInitialized() { changed(); }
        void doCleanup() { changed(); }
        void changed() { forwarding.siteChanged(site); }

        Forwarding& forwarding;
        const Netz::IpGenAddr site;
        Vel::Subscription paths;
    };
    struct VelNavRuleStatus final : Vel::Object {
        VelNavRuleStatus(Forwarding& forwarding, Nav::NavRuleStatus& status);
        void handleInitialized() { forwarding.replan(); }
        void doCleanup() { forwarding.replan(); }

        Forwarding& forwarding;
        Vel::Subscription rules;
    };

    void siteChanged(const Netz::IpGenAddr& site);
    void groupChanged(const Nav::LbProfileKey& key);
    MemberChoice::User choiceUser();
    void commitLater();
    void commit();
    void leaveFailedLinks();
    std::set<Netz::IpGenAddr> sitesOf(const std::set<uint32_t>& paths) const;
    void apply(ObjectKeys keys);
    void postpone(ObjectKeys& keys);
    void applyPostponed();
    void armPostponed();
    ObjectWriter::Scope scope() const;
    bool removes(const ObjectKey& key) const;
    bool replaces(const ObjectKey& key) const;
    VrfRoutes::Read readRoutes(RequestSocket& requests, VrfRoutes& routes) const;
    void readRoutes();
    uint16_t choosePort();
    bool removesNexthop(const ObjectKeys& keys) const;
    void applyRulesetLater();
    void handleRulesetTimer();
    void handleRulesetDue();
    void applyRuleset();
    bool damaged(const Segment& segment) const;
    bool allPathsProgrammed() const;
    void endAdoption();

    const Nav::NavInputs in_;
    KernelMonitor& monitor_;
    const std::function<void()> onProgrammed_;
    RequestSocket requests_;
    VrfRoutes routes_;
    Plan plan_;
    ObjectWriter kernel_;
    const ForwardingPtr config_;
    Nftables nftables_;
    TableWatch table_{nftTableName};
    std::string rulesetText_, rulesetRefused_;
    uint16_t portInUse_ = 0;
    bool adopting_ = false;
    // Work for the next commit.
    bool compareAll_ = false, replanAll_ = false, readRoutes_ = false, replanSites_ = false;
    bool rulesetDue_ = false;          // what the rules depend on may have changed
    bool tampered_ = false;            // with the agent's objects, by somebody else
    std::set<Netz::IpGenAddr> sites_;  // whose set of paths has changed
    Plan::LbKeys groups_;              // whose members may have changed
    ObjectKeys diverted_;              // what leaveFailedLinks() planned
    // Postponed, the removals until no group is to be replaced.
    ObjectKeys groupsToReplace_, nexthopsToRemove_;
    ObjectKey replaced_;  // the last group
    Loom::Task commit_;
    Loom::Timer postponed_, ruleset_, newPaths_, adoption_, retry_, repair_;
    Vel::Subscription port_;
    Vel::EntryReactorsOf<VelSiteGroupStatusEntry,
                         decltype(Nav::SiteGroupStatus::siteGroupStatusEntryAttr)>
        siteGroups_;
    Vel::EntryReactorsOf<VelNavRuleStatus, decltype(Nav::NavStatusDir::navRuleStatusAttr)> rules_;
    MemberChoice choice_;
};

// Removes what an agent that no longer runs left in the kernel. Raises Vel::Error if it cannot.
void removeForwarding();

}  // namespace Agent::Linux
