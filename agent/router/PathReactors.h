// The common part of the platforms' forwarding agents: one reactor for each path with a status, in
// every VRF, as paths, VRFs and the directory itself are added and removed.
//
// R is a Vel::Object constructed from (PathVrf<Owner>&, Nav::PathStatusEntry&); the rules of
// Vel::EntryReactors apply to it.
#pragma once

#include <optional>

#include "agent/router/RouterTrace.h"
#include "nav/root/NavInputs.h"

namespace Agent {

// The two addresses of a tunnel are of one family, so a path between an IPv4 and an IPv6 address is
// never programmed. Its reactor reports that once.
inline bool familiesDiffer(const Nav::PathKey& path) {
    return path.srcAddr.isV4() != path.dstAddr.isV4();
}
inline void traceFamilies(const Nav::PathKey& path) {
    if (familiesDiffer(path))
        DUOLOG(routerTrace, 4, "Path ", path,
               " is never usable: source and destination are of different address families");
}

// The owner of a path's reactor, and the path's VRF. Lives as long as the reactor.
template <class Owner>
struct PathVrf {
    Owner& agent;
    const Vel::Ptr<Nav::PathStatus> status;
};

template <class R, class Owner>
class PathReactors {
  public:
    PathReactors(Owner& agent, Nav::NavStatusDir& dir)
        : agent_(agent),
          dir_(dir),
          changed_(Vel::Subscription::to<&PathReactors::handleDir>(
              dir, Nav::NavStatusDir::navPathStatusDirAttr, this)) {
        handleDir();
    }

    template <class F>
    void forEach(F f) const {
        if (!vrfs_) return;
        for (const auto& vrf : vrfs_->all())
            for (const auto& path : vrf.reactor->paths.all()) f(*path.reactor);
    }

  private:
    struct VelPathStatus final : Vel::Object, PathVrf<Owner> {
        VelPathStatus(PathReactors& owner, Nav::PathStatus& vrf)
            : PathVrf<Owner>{owner.agent_, Vel::Ptr<Nav::PathStatus>(vrf)},
              paths(*this, vrf, Nav::PathStatus::pathStatusEntryAttr) {}
        void handleInitialized() { paths.initialize(); }
        void doCleanup() { paths.clear(); }

        Vel::EntryReactorsOf<R, decltype(Nav::PathStatus::pathStatusEntryAttr)> paths;
    };

    void handleDir() {
        vrfs_.reset();
        if (Nav::PathStatusDir* dir = dir_->navPathStatusDir()) {
            vrfs_.emplace(*this, *dir, Nav::PathStatusDir::pathStatusAttr);
            vrfs_->initialize();
        }
    }

    Owner& agent_;
    const Vel::Ptr<Nav::NavStatusDir> dir_;
    std::optional<Vel::EntryReactorsOf<VelPathStatus, decltype(Nav::PathStatusDir::pathStatusAttr)>>
        vrfs_;
    Vel::Subscription changed_;
};

}  // namespace Agent
