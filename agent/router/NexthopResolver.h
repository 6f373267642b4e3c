// The routing service of a platform: answers what path selection asks in the next-hop configuration
// by next-hop status and the two forwarding tables. Where packets go is the platform's to know;
// this writes down what differs from before. Owned by the platform; on the event thread.
//
// What always holds once it has resolved: a VRF has a status exactly while the lookup knows it; an
// address that is asked for there has a result exactly while the lookup gives it vias; the result
// names the FEC of these vias. All addresses of one family that go by the same vias share a FEC,
// which goes with the last of them. Ids are not used again.
//
// When vias change, little is told: a FEC that all its addresses leave for the same vias, as they
// do when the gateway before them changes, takes these on under its id, and no result changes. Any
// other address that goes by other vias is told of another FEC, so that no address ever names one
// with vias that were not and are not its own.
#pragma once

#include <functional>
#include <map>
#include <vector>

#include "nav/root/NavInputs.h"

namespace Agent {

class NexthopResolver {
  public:
    using Vias = std::vector<Shard::Fib::Via>;
    // Every VRF there is, with the vias of each address that is asked for and has any. Equal vias
    // come in equal order.
    using Answer = std::map<L3::VrfName, std::map<Netz::IpGenAddr, Vias>>;
    using Lookup = std::function<Answer(const Routing::NexthopConfig& asked)>;

    NexthopResolver(const Nav::NavInputs& inputs, Lookup lookup);

    // The lookup may answer otherwise than before: looks everything up, now or in a task.
    void resolve();
    void review() { in_.scheduler->post(resolution_); }

  private:
    struct VelNexthopVrfConfig final : Vel::Object {
        VelNexthopVrfConfig(NexthopResolver& resolver, Routing::NexthopVrfConfig& config);
        void handleInitialized() { resolver.review(); }
        void handleDelete() { resolver.review(); }

        NexthopResolver& resolver;
        Vel::Subscription nexthop;
    };

    const Nav::NavInputs in_;
    const Lookup lookup_;
    Vel::U64 lastFecId_ = 0;
    Loom::Task resolution_;
    Vel::EntryReactorsOf<VelNexthopVrfConfig, decltype(Routing::NexthopConfig::vrfAttr)> requests_;
};

}  // namespace Agent
