// Resolves the paths of one VRF: which way out each has, and with that its type and state.
//
// For every configured path the reactor requests the resolution of the path's destination, requests
// an IPsec connection if the path has a profile, and writes the path's status from the vias of the
// FEC that the destination goes by: the last one that leaves through the path's own interface
// counts. It keeps the indices of programmed paths in their sites' status. When a path's
// configuration goes, its status, its key info and its requests go with it.
//
// Owned by the directory reactor, which keeps one while the VRF has next-hop status. One that comes
// late sweeps what an earlier one left and ends in the state of one that was there from the start.
// When it goes it first stops reacting, then withdraws its requests; path status stays as it is.
#pragma once

#include <optional>

#include "nav/types/NavDb.h"
#include "nav/types/PathStatus.h"
#include "platform/services/FibMonitorHelperSm.h"
#include "platform/services/Ip.h"
#include "platform/services/Ipsec.h"

namespace Nav {

class NavPathResolutionDirSm;

class NAV_EXPORT NavPathResolutionSm final : public Vel::Reactor {
  public:
    static constexpr std::string_view name = "Nav::NavPathResolutionSm";
    struct Inputs {
        L3::VrfName vrfName;
        Vel::Input<PathConfig> pathConfig;                          // read
        Vel::Input<PathStatus> pathStatus;                          // written
        Vel::Input<SiteGroupStatus> siteGroupStatus;                // written
        Vel::Input<Ipsec::Path::PathConfigDir> ipsecPathConfigDir;  // written
        Vel::Input<NavDb> navDb;
        Vel::Input<Ip::Status> ipStatusDir;                           // read
        Vel::Input<Ip6::Status> ip6StatusDir;                         // read
        Vel::Input<Routing::NexthopVrfConfig> nexthopVrfConfig;       // written
        Vel::Input<Routing::NexthopVrfStatus> nexthopVrfStatus;       // read
        Vel::Input<Shard::Fib::ForwardingStatus> forwardingStatus;    // read
        Vel::Input<Shard::Fib6::ForwardingStatus> forwarding6Status;  // read
        Vel::Input<Vel::Scheduler> scheduler;
        NavPathResolutionDirSm* dirSm = nullptr;  // the owner
    };

    explicit NavPathResolutionSm(const Inputs& inputs);
    const Inputs& inputs() const { return in_; }
    void handleInitialized() override;
    void doCleanup() override;

    // A path's configuration came or went.
    void handlePathConfig(const PathKey& pathKey);
    // Reviews the addresses in the backlog until there are none.
    void handleNexthopBacklog();
    // Resolves again all paths of the VRF towards an address; one, whose destination it is.
    void reviewNexthop(const Netz::IpGenAddr& addr);
    void reviewPath(const PathKey& pathKey, const Netz::IpGenAddr& addr);
    // Offers one via to one path.
    void updatePathVia(const PathKey& pathKey, const Shard::Fib::Via& via);

  private:
    class VelPathConfigEntry;
    class VelPathStatusEntry;
    struct Offer;

    ~NavPathResolutionSm() override;

    bool isTowards(const Netz::IpGenAddr& addr, const PathKey& pathKey) const;
    bool isUsed(const Netz::IpGenAddr& addr) const;
    void requestNexthop(const Netz::IpGenAddr& addr);
    void releaseUnusedNexthop(const Netz::IpGenAddr& addr);
    const Shard::Fib::Fec& fecOf(const Routing::NexthopResult& result) const;
    PathKeyInfo* keyInfoOf(const PathKey& pathKey) const;
    std::optional<Offer> offerTo(const PathKey& pathKey);
    void publish(const Offer& offer, const std::optional<Shard::Fib::Via>& via);
    void sweepLeftovers();

    const Inputs in_;
    bool initialized_ = false;  // and not cleaned up yet
    bool draining_ = false;
    Vel::Ptr<Routing::NexthopBacklog> nexthopBacklog_;
    Vel::Subscription backlogVersion_;
    Vel::Owned<Routing::FibMonitorHelperSm> fibMonitorHelperSm_;
    Vel::EntryReactorsOf<VelPathConfigEntry, decltype(PathConfig::pathConfigEntryAttr)>
        pathConfigEntry_;
    Vel::EntryReactorsOf<VelPathStatusEntry, decltype(PathStatus::pathStatusEntryAttr)>
        pathStatusEntry_;
};
VEL_INPUTS(NavPathResolutionSm::Inputs, vrfName, pathConfig, pathStatus, siteGroupStatus,
           ipsecPathConfigDir, navDb, ipStatusDir, ip6StatusDir, nexthopVrfConfig, nexthopVrfStatus,
           forwardingStatus, forwarding6Status, scheduler, dirSm)

}  // namespace Nav
