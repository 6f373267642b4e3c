// Makes the kernel forward by the decisions of path selection: keeps the kernel's objects equal to
// the plan.
//
// Changes are made in a task, after those in which path selection settles: one batch for whatever
// happened before. What others remove or change is put back. At the start the objects of an agent
// before are adopted; until path selection has had time to find the paths again, nothing of them is
// replaced or removed, so that traffic goes on.
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
    // How long adopted objects stay at most, if not all paths come up.
    static constexpr Loom::Duration adoptionTime = std::chrono::seconds(5);
    // From a change by somebody else to its repair: more of it may follow, as when a device goes.
    static constexpr Loom::Duration settleTime = std::chrono::milliseconds(2);
    // Until what the kernel refused is tried again.
    static constexpr Loom::Duration retryTime = std::chrono::seconds(5);

    // The monitor outlives this. `onProgrammed`: what programmed() returns may
    // have changed. Raises Vel::Error where the kernel cannot be read.
    Forwarding(const Nav::NavInputs& inputs, ForwardingPtr config, KernelMonitor& monitor,
               std::function<void()> onProgrammed);

    // A path that can be used has come, moved or gone.
    void pathIs(uint32_t pathIndex, const PathHop& hop);
    void pathDel(uint32_t pathIndex);
    // The number of the path's next hop when the kernel has it in every segment; else 0.
    uint32_t programmed(uint32_t pathIndex);

    // The configuration has changed.
    void replan();
    void interfacesChanged();
    // A route of somebody else's has changed.
    void routeChanged(const Message& message);
    // The kernel may have lost objects: compares all of them.
    void repair();
    // The same, since somebody else has changed one.
    void ownChanged();
    // Removes everything from the kernel.
    void clear();

    // Readable when somebody changes nftables.
    int tableFd() const { return table_.fd(); }
    void handleTableReadable();

    Plan& plan() { return plan_; }
    const ObjectWriter& kernel() const { return kernel_; }
    // Why nftables refuses the rules; empty if they are in force.
    const std::string& rulesetRefused() const { return rulesetRefused_; }

  private:
    struct VelLbProfileStatusEntry final : Vel::Object {
        VelLbProfileStatusEntry(Forwarding& forwarding, Nav::LbProfileStatusEntry& entry);
        void handleInitialized() { changed(); }
        void doCleanup() { changed(); }
        void changed() { forwarding.siteChanged(site); }

        Forwarding& forwarding;
        const Netz::IpGenAddr site;
        Vel::Subscription generation;
    };
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
    using LbEntries = Vel::EntryReactorsOf<VelLbProfileStatusEntry,
                                           decltype(Nav::LbProfileStatus::lbProfileStatusEntryAttr)>;

    void siteChanged(const Netz::IpGenAddr& site);
    void handleLbStatus();
    void commitLater();
    void commit();
    void readRoutes();
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
    bool adopting_ = false;
    // What the next commit begins with.
    bool compareAll_ = false, replanAll_ = false, readRoutes_ = false, replanSites_ = false;
    bool tampered_ = false;  // with the agent's objects, by somebody else
    std::set<Netz::IpGenAddr> sites_;              // to be replanned in the next commit
    Loom::Task commit_, ruleset_;
    Loom::Timer adoption_, retry_, repair_;
    Vel::Subscription lbStatus_, port_;
    std::optional<LbEntries> lbEntries_;
    Vel::EntryReactorsOf<VelSiteGroupStatusEntry,
                         decltype(Nav::SiteGroupStatus::siteGroupStatusEntryAttr)>
        siteGroups_;
    Vel::EntryReactorsOf<VelNavRuleStatus, decltype(Nav::NavStatusDir::navRuleStatusAttr)> rules_;
};

}  // namespace Agent::Linux
