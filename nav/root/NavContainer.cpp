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
    in_.ipsecPathConfigDir->ipsecPathConfigDelAll();
    navDb_ = Vel::make<NavDb>("NavDb");
    const Vel::Ptr<PathStatusDir> pathStatusDir(*in_.navStatusDir->navPathStatusDir());
    const Vel::Ptr<LbProfileStatus> lbProfileStatus(*in_.navStatusDir->navLbProfileStatus());

    navPathGroupDirSm_.is({in_.cliConfig, in_.ipStatusDir, in_.routingHwRouteStatus,
                           in_.siteGroupStatus, in_.pathConfigDir, pathStatusDir, in_.navStatusDir,
                           in_.nexthopConfig, in_.nexthopStatus, maxPathIndex, navDb_});
    navPathResolutionDirSm_.is({in_.pathConfigDir, pathStatusDir, in_.siteGroupStatus,
                                in_.hwPathStatus, in_.ipsecPathConfigDir, in_.ipsecPathStatusDir,
                                navDb_, in_.ipStatusDir, in_.ip6StatusDir, in_.nexthopConfig,
                                in_.nexthopStatus, in_.forwardingStatus, in_.forwarding6Status,
                                in_.scheduler});
    navLoadBalancerSm_.is({in_.routingHwRouteStatus, in_.cliConfig, navDb_, in_.navStatusDir,
                           in_.navFeaturePolicyDir});
    navLbProfileSm_.is({in_.navStatusDir, in_.siteGroupStatus, in_.cliConfig, navDb_,
                        lbProfileStatus, maxLbIndex});
    initialized_ = true;
}

void NavContainer::doCleanup() {
    DUOLOG(rootTrace, 8, __PRETTY_FUNCTION__);
    navLbProfileSm_.del();
    navPathGroupDirSm_.del();
    navPathResolutionDirSm_.del();
    navLoadBalancerSm_.del();
    // The VRFs whose next hops construction and resolution asked for.
    in_.nexthopConfig->vrfDelAll();
    navDb_ = nullptr;
}

}  // namespace Nav
