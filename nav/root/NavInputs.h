// The inputs of the path-selection system: its configuration, the directories it publishes, and the
// state of the router's other services. The host owns them and keeps them alive as long as the
// root; the root passes them on unchanged.
#pragma once

#include "nav/config/NavCliConfig.h"
#include "nav/types/NavStatusDir.h"
#include "platform/services/AgentCommand.h"
#include "platform/services/Classification.h"
#include "platform/services/Ip.h"
#include "platform/services/Ipsec.h"
#include "platform/services/Routing.h"
#include "platform/shard/ForwardingStatus.h"
#include "platform/vel/Reactor.h"
#include "platform/vel/Scheduler.h"

namespace Nav {

struct NavInputs {
    Vel::Input<NavCliConfig> cliConfig;                                // read
    Vel::Input<PathConfigDir> pathConfigDir;                           // written
    Vel::Input<NavStatusDir> navStatusDir;                             // written
    Vel::Input<SiteGroupStatus> siteGroupStatus;                       // written
    Vel::Input<HwPathStatus> hwPathStatus;                             // read
    Vel::Input<Ipsec::Path::PathConfigDir> ipsecPathConfigDir;         // written
    Vel::Input<Ipsec::Path::PathStatusDir> ipsecPathStatusDir;         // read
    Vel::Input<Classification::FeaturePolicyDir> navFeaturePolicyDir;  // written
    Vel::Input<Ip::Status> ipStatusDir;                                // read
    Vel::Input<Ip6::Status> ip6StatusDir;                              // read
    Vel::Input<Routing::NexthopConfig> nexthopConfig;                  // written
    Vel::Input<Routing::NexthopStatus> nexthopStatus;                  // read
    Vel::Input<Shard::Fib::ForwardingStatus> forwardingStatus;         // read
    Vel::Input<Shard::Fib6::ForwardingStatus> forwarding6Status;       // read
    Vel::Input<Routing::Hardware::RouteStatus> routingHwRouteStatus;   // read
    Vel::Input<Vel::Dir> navCliRequestDir;  // read: show-command requests
    Vel::Input<Vel::Scheduler> scheduler;
};
VEL_INPUTS(NavInputs, cliConfig, pathConfigDir, navStatusDir, siteGroupStatus, hwPathStatus,
           ipsecPathConfigDir, ipsecPathStatusDir, navFeaturePolicyDir, ipStatusDir, ip6StatusDir,
           nexthopConfig, nexthopStatus, forwardingStatus, forwarding6Status, routingHwRouteStatus,
           navCliRequestDir, scheduler)

// A set of empty inputs, each entity named like its attribute, for a host that creates none itself.
NAV_EXPORT NavInputs makeNavInputs(Vel::Ptr<Vel::Scheduler> scheduler);

}  // namespace Nav
