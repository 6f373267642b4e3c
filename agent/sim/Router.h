// The embedded router: plays the router's other services in process, on a world of its own. It
// writes the interface, VRF, next-hop, IPsec and hardware status that the path-selection system
// reads, and answers what that asks for.
//
// Its time is that of the clock which drives the scheduler, so a test that steps the clock steps
// the world. Everything runs in handlers, tasks and timers; nothing is polled. The inputs hold all
// that it publishes; it may come before or after the root, and go before or after it.
#pragma once

#include "agent/router/NexthopResolver.h"
#include "agent/sim/ForwardingAgent.h"
#include "agent/sim/IpsecPeers.h"
#include "agent/sim/PathChoice.h"
#include "agent/sim/World.h"

namespace Agent::Sim {

class Router {
  public:
    // The history begins now.
    Router(const Nav::NavInputs& inputs, History history);

    const World& world() const { return world_; }
    // From here on the world is this one, until the next step of its history.
    void worldIs(const World& world);

  private:
    void publish();
    NexthopResolver::ViasByVrf lookup(const Routing::NexthopConfig& requested) const;
    void handleStep();
    void awaitStep();

    const Nav::NavInputs inputs_;
    const History history_;
    const Loom::Instant start_;
    World world_;
    NexthopResolver resolver_;
    IpsecPeers peers_;
    ForwardingAgent forwarding_;
    PathChoice choice_;
    size_t next_ = 0;  // step of the history
    Loom::Timer step_;
};

}  // namespace Agent::Sim
