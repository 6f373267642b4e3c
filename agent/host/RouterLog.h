// Logs changes of the router: interfaces whose addresses change, and each path that comes up or
// goes down, with the reason. It reads published state only, after it has settled, so a change that
// is undone at once is not logged. Owned by HostAgent; used on the event thread.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>

#include "agent/router/PathReactors.h"
#include "agent/router/PathReason.h"
#include "agent/router/Platform.h"
#include "nav/types/NavDb.h"

namespace Agent {

class RouterLog {
  public:
    // `database`: /navDb while it exists, else null.
    RouterLog(const Nav::NavInputs& inputs, const Platform& platform,
              std::function<const Nav::NavDb*()> database);

  private:
    using PathPlace = std::pair<L3::VrfName, Nav::PathKey>;

    struct VelPathStatusEntry final : Vel::Object {
        VelPathStatusEntry(PathVrf<RouterLog>& vrf, Nav::PathStatusEntry& path);
        void handleInitialized() { changed(); }
        void doCleanup() { changed(); }
        void changed();

        RouterLog& log;
        const PathPlace place;
        Vel::Subscription programmed;
    };
    struct VelIpIntfStatus final : Vel::Object {
        VelIpIntfStatus(RouterLog& log, Ip::IpIntfStatus& status);
        void handleInitialized() { changed(); }
        void doCleanup() { changed(); }
        void changed();

        RouterLog& log;
        const Netz::IntfId name;
        Vel::Subscription address, vrf;
    };

    void report();
    void reportInterface(const Netz::IntfId& name);
    void reportPath(const PathPlace& place);
    std::string describe(const Netz::IntfId& name) const;
    const Nav::PathStatusEntry* statusOf(const PathPlace& place) const;

    const Nav::NavInputs in_;
    const Platform& platform_;
    const std::function<const Nav::NavDb*()> database_;
    std::map<PathPlace, PathIdentity> up_;            // as logged
    std::map<Netz::IntfId, std::string> interfaces_;  // as logged, those with an address
    std::set<PathPlace> changedPaths_;                // since the last report
    std::set<Netz::IntfId> changedInterfaces_;
    Loom::Task report_;
    Vel::EntryReactorsOf<VelIpIntfStatus, decltype(Ip::Status::ipIntfStatusAttr)> interfaces4_;
    Vel::EntryReactorsOf<VelIpIntfStatus, decltype(Ip6::Status::ipIntfStatusAttr)> interfaces6_;
    PathReactors<VelPathStatusEntry, RouterLog> paths_;
};

}  // namespace Agent
