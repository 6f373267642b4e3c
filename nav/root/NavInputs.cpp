#include "nav/root/NavInputs.h"

namespace Nav {

// Each input has the name of its attribute here; the paths of the control socket begin with it.
NavInputs makeNavInputs(Vel::Ptr<Vel::Scheduler> scheduler) {
    return {
        .cliConfig = Vel::make<NavCliConfig>("cliConfig"),
        .pathConfigDir = Vel::make<PathConfigDir>("pathConfigDir"),
        .navStatusDir = Vel::make<NavStatusDir>("navStatusDir"),
        .siteGroupStatus = Vel::make<SiteGroupStatus>("siteGroupStatus"),
        .hwPathStatus = Vel::make<HwPathStatus>("hwPathStatus"),
        .ipsecPathConfigDir = Vel::make<Ipsec::Path::PathConfigDir>("ipsecPathConfigDir"),
        .ipsecPathStatusDir = Vel::make<Ipsec::Path::PathStatusDir>("ipsecPathStatusDir"),
        .navFeaturePolicyDir = Vel::make<Classification::FeaturePolicyDir>("navFeaturePolicyDir"),
        .ipStatusDir = Vel::make<Ip::Status>("ipStatusDir"),
        .ip6StatusDir = Vel::make<Ip6::Status>("ip6StatusDir"),
        .nexthopConfig = Vel::make<Routing::NexthopConfig>("nexthopConfig"),
        .nexthopStatus = Vel::make<Routing::NexthopStatus>("nexthopStatus"),
        .forwardingStatus = Vel::make<Shard::Fib::ForwardingStatus>("forwardingStatus"),
        .forwarding6Status = Vel::make<Shard::Fib6::ForwardingStatus>("forwarding6Status"),
        .routingHwRouteStatus = Vel::make<Routing::Hardware::RouteStatus>("routingHwRouteStatus"),
        .navCliRequestDir = Vel::make<Vel::Dir>("navCliRequestDir"),
        .scheduler = std::move(scheduler)};
}

}  // namespace Nav
