// The forwarding side as a reader of load-balance status: which paths the packets to a site take,
// per application and VRF. Each change of the choice is traced at level 5.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "nav/root/NavInputs.h"

namespace Agent::Sim {

// The members of the best, that is lowest, priority, by path index. None while there is no member.
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
    // Compares what is chosen now with what was, for the keys that changed since the last time.
    void choose();
    std::string trafficOf(const Nav::LbProfileKey& key) const;

    const Vel::Ptr<Nav::NavCliConfig> config_;
    const Vel::Ptr<Routing::Hardware::RouteStatus> vrfs_;
    const Vel::Ptr<Nav::NavStatusDir> statusDir_;
    const Vel::Ptr<Vel::Scheduler> scheduler_;
    std::set<Nav::LbProfileKey> changed_;
    std::map<Nav::LbProfileKey, std::vector<Nav::PathWithPriority>> chosen_;
    Loom::Task choice_;
    std::optional<Vel::EntryReactorsOf<VelLbProfileStatusEntry,
                                       decltype(Nav::LbProfileStatus::lbProfileStatusEntryAttr)>>
        entries_;
    Vel::Subscription lbProfileStatus_;
};

}  // namespace Agent::Sim
