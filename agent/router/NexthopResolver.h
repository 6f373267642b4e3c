// The routing service of a platform: answers the requests of the next-hop configuration with
// next-hop status and the two forwarding tables. The platform looks up the vias; this class
// publishes what changed. Owned by the platform; used on the event thread.
//
// Invariants after each resolution: a VRF has a status exactly while the lookup returns it; a
// requested address has a result exactly while the lookup returns vias for it, and the result names
// the FEC of these vias. All addresses of one family with the same vias share a FEC, which is
// deleted with the last of them. Ids are not reused.
//
// When vias change, few notifications are sent: if every address using a FEC moves to the same new
// vias, for example because their gateway changes, the FEC keeps its id and takes them, and no
// result changes. Any other address with new vias gets another FEC, so that no address ever names a
// FEC whose vias are neither its old nor its new ones.
#pragma once

#include <functional>
#include <map>
#include <vector>

#include "nav/root/NavInputs.h"

namespace Agent {

// The FEC that is published for an address; null without a route.
const Shard::Fib::Fec* fecOf(const Nav::NavInputs& inputs, const L3::VrfName& vrf,
                             const Netz::IpGenAddr& addr);

class NexthopResolver {
  public:
    using Vias = std::vector<Shard::Fib::Via>;
    // Every VRF of the router, with the vias of each requested address that has any. Equal vias are
    // in equal order.
    using ViasByVrf = std::map<L3::VrfName, std::map<Netz::IpGenAddr, Vias>>;
    using Lookup = std::function<ViasByVrf(const Routing::NexthopConfig& requested)>;

    // The lookup may also depend on the configured paths: it is repeated when one is added or
    // removed.
    NexthopResolver(const Nav::NavInputs& inputs, Lookup lookup);

    // Looks everything up and publishes it, now or in a task.
    void resolve();
    void review() { in_.scheduler->post(resolution_); }

  private:
    // Subscribes to one collection of one VRF.
    template <class Vrf, const auto* attribute>
    struct VelVrf final : Vel::Object {
        VelVrf(NexthopResolver& owner, Vrf& vrf)
            : resolver(owner),
              elements(Vel::Subscription::to<&NexthopResolver::review>(vrf, *attribute, &owner)) {}
        void handleInitialized() { resolver.review(); }
        void handleDelete() { resolver.review(); }

        NexthopResolver& resolver;
        Vel::Subscription elements;
    };
    using VelNexthopVrfConfig =
        VelVrf<Routing::NexthopVrfConfig, &Routing::NexthopVrfConfig::nexthopAttr>;
    using VelPathConfig = VelVrf<Nav::PathConfig, &Nav::PathConfig::pathConfigEntryAttr>;

    const Nav::NavInputs in_;
    const Lookup lookup_;
    Vel::U64 lastFecId_ = 0;
    Loom::Task resolution_;
    Vel::EntryReactorsOf<VelNexthopVrfConfig, decltype(Routing::NexthopConfig::vrfAttr)> requests_;
    Vel::EntryReactorsOf<VelPathConfig, decltype(Nav::PathConfigDir::pathConfigAttr)> paths_;
};

}  // namespace Agent
