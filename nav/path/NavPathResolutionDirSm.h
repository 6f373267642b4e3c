// Path resolution of all VRFs: keeps a per-VRF reactor for each VRF that has next-hop status, and
// writes the state of IPsec connections and of hardware programming into the status of the paths,
// also in VRFs without such a reactor. The VRF of a path is the one that its key info names, even
// if several VRFs report its VRF id.
//
// Owned by the container.
#pragma once

#include "nav/path/NavPathResolutionSm.h"

namespace Nav {

class NAV_EXPORT NavPathResolutionDirSm final : public Vel::Reactor {
  public:
    static constexpr std::string_view name = "Nav::NavPathResolutionDirSm";
    struct Inputs {
        Vel::Input<PathConfigDir> pathConfigDir;                    // entries created for VRFs
        Vel::Input<PathStatusDir> pathStatusDir;                    // written
        Vel::Input<SiteGroupStatus> siteGroupStatus;                // passed on
        Vel::Input<HwPathStatus> hwPathStatus;                      // read
        Vel::Input<Ipsec::Path::PathConfigDir> ipsecPathConfigDir;  // passed on
        Vel::Input<Ipsec::Path::PathStatusDir> ipsecPathStatusDir;  // read
        Vel::Input<NavDb> navDb;
        Vel::Input<Ip::Status> ipStatusDir;                           // passed on
        Vel::Input<Ip6::Status> ip6StatusDir;                         // passed on
        Vel::Input<Routing::NexthopConfig> nexthopConfig;             // entries created for VRFs
        Vel::Input<Routing::NexthopStatus> nexthopStatus;             // read
        Vel::Input<Shard::Fib::ForwardingStatus> forwardingStatus;    // passed on
        Vel::Input<Shard::Fib6::ForwardingStatus> forwarding6Status;  // passed on
        Vel::Input<Vel::Scheduler> scheduler;                         // passed on
    };

    explicit NavPathResolutionDirSm(const Inputs& inputs);
    const Inputs& inputs() const { return in_; }
    void handleInitialized() override;
    void doCleanup() override;

    // A VRF's next-hop status was added or removed.
    void handleNexthopVrfStatus(const L3::VrfName& vrfName);
    // Called when the resolution of a configured path begins: applies the IPsec status and the
    // hardware entry that already exist.
    void handlePathConfigured(const PathKey& pathKey, const Ipsec::ConnectionKey& connection);
    // Writes whether a path is programmed. Does nothing for a path without key info or status.
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

    const Ipsec::Path::PathStatus* established(const Ipsec::ConnectionKey& connection) const;
    void handleIpsecConnectionState(const Ipsec::ConnectionKey& connection);
    void handleHwPathStatus(const HwPathKey& key);

    const Inputs in_;
    bool initialized_ = false;
    bool ended_ = false;  // from doCleanup() on; no per-VRF reactor is made after
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
