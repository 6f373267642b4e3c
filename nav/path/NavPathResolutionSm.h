// Resolves the paths of one VRF into forwarding vias, which determine the type and state of each.
//
// For every configured path the reactor requests the resolution of the path's destination, requests
// an IPsec connection if the path has a profile, and writes the path's status from the vias of the
// destination's FEC: the last via that leaves through the path's own interface is used. It
// maintains the indices of programmed paths in the status of their sites. When a path's
// configuration is removed, it removes the path's status, key info and requests.
//
// Owned by the directory reactor, which keeps one while the VRF has next-hop status. A reactor
// created later removes what an earlier one left and reaches the state of one created at the start.
// doCleanup() stops reacting, then withdraws the requests; path status stays as it is.
//
// Every write may call subscribers that change the inputs. After each write the reactor checks
// whether the path is still configured and the reactor still in charge of the VRF.
#pragma once

#include <optional>

#include "nav/types/NavDb.h"
#include "nav/types/PathStatus.h"
#include "platform/services/FecPlace.h"
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

    // A path's configuration was added or removed.
    void handlePathConfig(const PathKey& pathKey);
    // Reviews the addresses in the backlog until it is empty.
    void handleNexthopBacklog();
    // Resolves all paths of the VRF with this destination again; one of them.
    void reviewNexthop(const Netz::IpGenAddr& addr);
    void reviewPath(const PathKey& pathKey, const Netz::IpGenAddr& addr);
    // Offers one via to one path.
    void updatePathVia(const PathKey& pathKey, const Shard::Fib::Via& via);

  private:
    class VelPathConfigEntry;
    class VelPathStatusEntry;
    struct Destination;
    struct Offer;

    ~NavPathResolutionSm() override;

    bool isConfigured(const PathKey& pathKey) const;
    bool isUsed(const Netz::IpGenAddr& addr) const;
    void requestNexthop(const Netz::IpGenAddr& addr);
    void forgetNexthop(const Netz::IpGenAddr& addr);
    void releaseUnusedNexthop(const Netz::IpGenAddr& addr);
    PathKeyInfo* keyInfoOf(const PathKey& pathKey) const;
    void reviewPath(const PathKey& pathKey, VelPathConfigEntry* config, const Netz::IpGenAddr& addr,
                    Routing::FecPlace& place);
    std::optional<Offer> offerTo(VelPathConfigEntry* config);
    void publish(const Offer& offer, const Shard::Fib::Via* via);
    void publishUnsecured(const Offer& offer, const std::optional<Shard::Fib::Via>& via);
    void sweepLeftovers();

    const Inputs in_;
    bool initialized_ = false;  // from handleInitialized() to doCleanup()
    bool draining_ = false;     // within handleNexthopBacklog()
    Vel::Ptr<Routing::NexthopBacklog> nexthopBacklog_;
    Vel::Subscription backlogVersion_;
    Vel::Owned<Routing::FibMonitorHelperSm> fibMonitorHelperSm_;
    Vel::Unordered<Vel::MapTraits<Netz::IpGenAddr, Vel::Ptr<Destination>>> destinations_;
    Vel::EntryReactorsOf<VelPathConfigEntry, decltype(PathConfig::pathConfigEntryAttr)>
        pathConfigEntry_;
    Vel::EntryReactorsOf<VelPathStatusEntry, decltype(PathStatus::pathStatusEntryAttr)>
        pathStatusEntry_;
};
VEL_INPUTS(NavPathResolutionSm::Inputs, vrfName, pathConfig, pathStatus, siteGroupStatus,
           ipsecPathConfigDir, navDb, ipStatusDir, ip6StatusDir, nexthopVrfConfig, nexthopVrfStatus,
           forwardingStatus, forwarding6Status, scheduler, dirSm)

}  // namespace Nav
