#include "nav/root/NavContainer.h"

#include "nav/root/RootTrace.h"

namespace Nav {

NavContainer::NavContainer(const Inputs& inputs) : in_(inputs) {}

NavContainer::~NavContainer() = default;

void NavContainer::handleInitialized() {
    DUOLOG(rootTrace, 8, __PRETTY_FUNCTION__);
    if (initialized_) {
        DUOLOG(rootTrace, 7, "handleInitialized", ":", "already initialized");
        return;
    }
    // A subscriber called below may cause doCleanup(); nothing is created after that.
    in_.ipsecPathConfigDir->ipsecPathConfigDelAll();
    if (ended_) return;
    navDb_ = Vel::make<NavDb>("NavDb");
    const Vel::Ptr<PathStatusDir> pathStatusDir(*in_.navStatusDir->navPathStatusDir());
    const Vel::Ptr<LbProfileStatus> lbProfileStatus(*in_.navStatusDir->navLbProfileStatus());

    navPathGroupDirSm_.is({in_.cliConfig, in_.ipStatusDir, in_.routingHwRouteStatus,
                           in_.siteGroupStatus, in_.pathConfigDir, pathStatusDir, in_.navStatusDir,
                           in_.nexthopConfig, in_.nexthopStatus, maxPathIndex, navDb_});
    if (ended_) return;
    navPathResolutionDirSm_.is({in_.pathConfigDir, pathStatusDir, in_.siteGroupStatus,
                                in_.hwPathStatus, in_.ipsecPathConfigDir, in_.ipsecPathStatusDir,
                                navDb_, in_.ipStatusDir, in_.ip6StatusDir, in_.nexthopConfig,
                                in_.nexthopStatus, in_.forwardingStatus, in_.forwarding6Status,
                                in_.scheduler});
    if (ended_) return;
    navLoadBalancerSm_.is({in_.routingHwRouteStatus, in_.cliConfig, navDb_, in_.navStatusDir,
                           in_.navFeaturePolicyDir});
    if (ended_) return;
    navLbProfileSm_.is({in_.navStatusDir, in_.siteGroupStatus, in_.cliConfig, navDb_,
                        lbProfileStatus, maxLbIndex});
    initialized_ = !ended_;
}

void NavContainer::doCleanup() {
    DUOLOG(rootTrace, 8, __PRETTY_FUNCTION__);
    ended_ = true;
    initialized_ = false;
    navLbProfileSm_.del();
    navPathGroupDirSm_.del();
    navPathResolutionDirSm_.del();
    navLoadBalancerSm_.del();
    // Next-hop requests of construction and resolution.
    in_.nexthopConfig->vrfDelAll();
    navDb_ = nullptr;
}

}  // namespace Nav
