// The simulated router: implements the router's other services in process, on a simulated network.
// It writes the interface, VRF, next-hop, IPsec and hardware status that path selection reads, and
// serves its requests.
//
// Time is that of the scheduler's clock, so a test that steps the clock steps the network.
// Everything runs in handlers, tasks and timers; nothing is polled. All published state is in the
// inputs, so a SimRouter may be created and destroyed before or after the root reactor.
#pragma once

#include "agent/router/NexthopResolver.h"
#include "agent/router/Platform.h"
#include "agent/sim/ForwardingAgent.h"
#include "agent/sim/IpsecPeers.h"
#include "agent/sim/PathChoice.h"
#include "agent/sim/PathProbes.h"
#include "agent/sim/World.h"

namespace Agent::Sim {

class SimRouter {
  public:
    // The history starts at the time of construction.
    SimRouter(const Nav::NavInputs& inputs, History history);

    const World& world() const { return world_; }
    QualityStatus& quality() const { return *quality_; }
    // Replaces the world, until the next step of the history replaces it again.
    void worldIs(const World& world);
    Chosen choose(const Nav::LbProfileStatusEntry& entry) const {
        return choice_.members().choose(entry);
    }
    PathDetail detail(const Nav::PathStatusEntry& path, const L3::VrfName& vrf) const;

  private:
    void publish();
    NexthopResolver::Routes lookup(const Routing::NexthopConfig& requested) const;
    void handleStep();
    void awaitStep();

    const Nav::NavInputs inputs_;
    const History history_;
    const Loom::Instant start_;
    World world_;
    NexthopResolver resolver_;
    const Vel::Ptr<QualityStatus> quality_;
    IpsecPeers peers_;
    PathProbes probes_;
    ForwardingAgent forwarding_;
    PathChoice choice_;
    size_t next_ = 0;  // the next step of the history
    Loom::Timer step_;
};

}  // namespace Agent::Sim
