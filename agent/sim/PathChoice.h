// The simulated forwarding side as a reader of load-balance status: chooses the paths of packets to
// a site, per application and VRF, and traces each change of that choice at level 5. Owned by the
// SimRouter; used on the event thread.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "nav/root/NavInputs.h"

namespace Agent::Sim {

// The members with the lowest priority value, which is the best, in the order of path index. Empty
// if the entry has no members.
std::vector<Nav::PathWithPriority> chosenPaths(const Nav::LbProfileStatusEntry& entry);

class PathChoice {
  public:
    explicit PathChoice(const Nav::NavInputs& inputs);

  private:
    struct VelLbProfileStatusEntry final : Vel::Object {
        VelLbProfileStatusEntry(PathChoice& reader, Nav::LbProfileStatusEntry& entry);
        void handleInitialized() { handlePaths(); }
        void doCleanup() { handlePaths(); }
        void handlePaths();

        PathChoice& reader;
        const Nav::LbProfileKey key;
        Vel::Subscription paths;
    };

    void handleLbProfileStatus();
    // Recomputes the choice for the keys that changed since the last call.
    void choose();
    std::string trafficOf(const Nav::LbProfileKey& key) const;

    const Vel::Ptr<Nav::NavCliConfig> config_;
    const Vel::Ptr<Routing::Hardware::RouteStatus> vrfs_;
    const Vel::Ptr<Nav::NavStatusDir> statusDir_;
    const Vel::Ptr<Vel::Scheduler> scheduler_;
    std::set<Nav::LbProfileKey> changed_;  // to be recomputed by choice_
    std::map<Nav::LbProfileKey, std::vector<Nav::PathWithPriority>> chosen_;
    Loom::Task choice_;
    std::optional<Vel::EntryReactorsOf<VelLbProfileStatusEntry,
                                       decltype(Nav::LbProfileStatus::lbProfileStatusEntryAttr)>>
        entries_;
    Vel::Subscription lbProfileStatus_;
};

}  // namespace Agent::Sim
