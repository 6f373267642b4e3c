// The routing service of a platform: answers the requests of the next-hop configuration with
// next-hop status and the two forwarding tables. The platform looks up the vias; this class
// publishes what changed. Owned by the platform; used on the event thread.
//
// Invariants after each resolution: a VRF has a status exactly while the lookup returns it; a
// requested address has a result exactly while the lookup returns a route to it, and the result
// names the FEC of the route's vias. All addresses of one family with the same vias share a FEC,
// which is deleted with the last of them. Ids are not reused.
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
#include "platform/services/FecPlace.h"

namespace Agent {

// The FEC that is published for an address; null without a route.
const Shard::Fib::Fec* fecOf(const Nav::NavInputs& inputs, const L3::VrfName& vrf,
                             const Netz::IpGenAddr& addr);

// The same for one address again and again: it is looked up only after results or FECs have been
// added or removed. The inputs, VRF and address must be the same in every call.
class FecFinder {
  public:
    const Shard::Fib::Fec* operator()(const Nav::NavInputs& inputs, const L3::VrfName& vrf,
                                      const Netz::IpGenAddr& addr);

  private:
    Vel::Ptr<Routing::NexthopVrfStatus> vrf_;
    Routing::FecPlace place_;  // in it
};

class NexthopResolver {
  public:
    using Vias = std::vector<Shard::Fib::Via>;
    struct Routes {
        struct Route {
            Netz::IpGenAddr addr;
            size_t list;  // position of its vias in `lists`; these are not empty
        };
        // Equal vias are in equal order, but may be in several lists: the fewer lists there are,
        // the less is compared.
        std::vector<Vias> lists;
        // Every VRF of the router, with one route to each requested address that has any.
        std::map<L3::VrfName, std::vector<Route>> vrfs;

        size_t add(Vias vias) {
            lists.push_back(std::move(vias));
            return lists.size() - 1;
        }
    };
    // `changed`: addresses have been requested or released, or paths added or removed, since the
    // last call.
    using Lookup = std::function<Routes(const Routing::NexthopConfig& requested, bool changed)>;

    NexthopResolver(const Nav::NavInputs& inputs, Lookup lookup);

    // Looks everything up and publishes it.
    void resolve();

  private:
    // The same in a task, after requests or paths have changed.
    void review() {
        changed_ = true;
        in_.scheduler->post(resolution_);
    }

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
    bool changed_ = true;
    Loom::Task resolution_;
    Vel::EntryReactorsOf<VelNexthopVrfConfig, decltype(Routing::NexthopConfig::vrfAttr)> requests_;
    Vel::EntryReactorsOf<VelPathConfig, decltype(Nav::PathConfigDir::pathConfigAttr)> paths_;
};

}  // namespace Agent
