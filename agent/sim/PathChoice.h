// The simulated forwarding side as a reader of load-balance status: takes the paths of packets to a
// site, per application and VRF, from the choice of members, and traces each change at level 5.
// Owned by the SimRouter; used on the event thread.
#pragma once

#include <map>
#include <set>
#include <vector>

#include "agent/router/MemberChoice.h"
#include "agent/sim/World.h"

namespace Agent::Sim {

class PathChoice {
  public:
    // REQUIRES: the world outlives this.
    PathChoice(const Nav::NavInputs& inputs, QualityStatus& quality, const World& world);

    const MemberChoice& members() const { return members_; }

  private:
    // Recomputes the choice for the keys that changed since the last call.
    void choose();
    void chooseLater(const Nav::LbProfileKey& key);

    const Nav::NavInputs in_;
    std::set<Nav::LbProfileKey> changed_;  // to be recomputed by choice_
    std::map<Nav::LbProfileKey, std::vector<Nav::PathWithPriority>> chosen_;
    Loom::Task choice_;
    MemberChoice members_;
};

}  // namespace Agent::Sim
