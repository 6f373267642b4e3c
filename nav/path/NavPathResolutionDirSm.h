// Path resolution of the whole agent: keeps a per-VRF reactor for each VRF that has next-hop
// status, and folds the state of IPsec connections and of hardware programming into the status of
// the paths, whether or not their VRF is being resolved.
//
// Owned by the container.
#pragma once

#include "nav/path/NavPathResolutionSm.h"

namespace Nav {

class NAV_EXPORT NavPathResolutionDirSm final : public Vel::Reactor {
  public:
    static constexpr std::string_view name = "Nav::NavPathResolutionDirSm";
    struct Inputs {
        Vel::Input<PathConfigDir> pathConfigDir;                    // entries made for VRFs
        Vel::Input<PathStatusDir> pathStatusDir;                    // written
        Vel::Input<SiteGroupStatus> siteGroupStatus;                // handed on
        Vel::Input<HwPathStatus> hwPathStatus;                      // read
        Vel::Input<Ipsec::Path::PathConfigDir> ipsecPathConfigDir;  // handed on
        Vel::Input<Ipsec::Path::PathStatusDir> ipsecPathStatusDir;  // read
        Vel::Input<NavDb> navDb;
        Vel::Input<Ip::Status> ipStatusDir;                           // handed on
        Vel::Input<Ip6::Status> ip6StatusDir;                         // handed on
        Vel::Input<Routing::NexthopConfig> nexthopConfig;             // entries made for VRFs
        Vel::Input<Routing::NexthopStatus> nexthopStatus;             // read
        Vel::Input<Shard::Fib::ForwardingStatus> forwardingStatus;    // handed on
        Vel::Input<Shard::Fib6::ForwardingStatus> forwarding6Status;  // handed on
        Vel::Input<Vel::Scheduler> scheduler;                         // handed on
    };

    explicit NavPathResolutionDirSm(const Inputs& inputs);
    const Inputs& inputs() const { return in_; }
    void handleInitialized() override;
    void doCleanup() override;

    // A VRF's next-hop status came or went.
    void handleNexthopVrfStatus(const L3::VrfName& vrfName);
    // A configured path is being resolved from now on: takes into account the IPsec status and the
    // hardware entry that came before it.
    void handlePathConfigured(const PathKey& pathKey, const Ipsec::ConnectionKey& connection);
    // Writes whether a path is programmed; nothing for a path without status.
    void updatePathStatus(const PathKey& pathKey, bool programmed);

    NavPathResolutionSm* navPathResolutionSm(const L3::VrfName& vrfName) const {
        return navPathResolutionSm_(vrfName);
    }
    NavPathResolutionSm& navPathResolutionSmIs(const NavPathResolutionSm::Inputs& inputs) {
        return navPathResolutionSm_.is(inputs.vrfName, inputs);
    }
    void navPathResolutionSmDel(const L3::VrfName& vrfName) { navPathResolutionSm_.del(vrfName); }

  private:
    class VelHwPathStatusEntry;
    class VelIpsecPathStatus;

    ~NavPathResolutionDirSm() override;

    void handleIpsecConnectionState(const Ipsec::ConnectionKey& connection);
    void handleHwPathStatus(const HwPathKey& key);

    const Inputs in_;
    bool initialized_ = false;
    Vel::ReactorMap<L3::VrfName, NavPathResolutionSm> navPathResolutionSm_;
    Vel::Subscription nexthopStatus_;
    Vel::EntryReactorsOf<VelHwPathStatusEntry, decltype(HwPathStatus::hwPathStatusListAttr)>
        hwPathStatusEntry_;
    Vel::EntryReactorsOf<VelIpsecPathStatus,
                         decltype(Ipsec::Path::PathStatusDir::ipsecPathStatusAttr)>
        ipsecPathStatus_;
};
VEL_INPUTS(NavPathResolutionDirSm::Inputs, pathConfigDir, pathStatusDir, siteGroupStatus,
           hwPathStatus, ipsecPathConfigDir, ipsecPathStatusDir, navDb, ipStatusDir, ip6StatusDir,
           nexthopConfig, nexthopStatus, forwardingStatus, forwarding6Status, scheduler)

}  // namespace Nav
