#include "platform/services/AgentCommand.h"
#include "platform/services/Classification.h"
#include "platform/services/Ip.h"
#include "platform/services/Ipsec.h"
#include "platform/services/Routing.h"

namespace Ip {
VEL_DEFINE(Ip, IpIntfStatus)
VEL_DEFINE(Ip, Status)
}  // namespace Ip

namespace Ip6 {
VEL_DEFINE(Ip6, Status)
}  // namespace Ip6

namespace Routing {
namespace Hardware {
VEL_DEFINE(Routing::Hardware, VrfStatus)
VEL_DEFINE(Routing::Hardware, RouteStatus)
}  // namespace Hardware
VEL_DEFINE(Routing, NexthopVrfConfig)
VEL_DEFINE(Routing, NexthopConfig)
VEL_DEFINE(Routing, NexthopVrfStatus)
VEL_DEFINE(Routing, NexthopStatus)
VEL_DEFINE(Routing, NexthopBacklog)
}  // namespace Routing

namespace Ipsec::Path {
VEL_DEFINE(Ipsec::Path, PathConfig)
VEL_DEFINE(Ipsec::Path, PathConfigDir)
VEL_DEFINE(Ipsec::Path, PathStatus)
VEL_DEFINE(Ipsec::Path, PathStatusDir)
}  // namespace Ipsec::Path

namespace Classification {
VEL_DEFINE(Classification, FeaturePolicy)
VEL_DEFINE(Classification, AppliedPolicy)
VEL_DEFINE(Classification, FeaturePolicyDir)
}  // namespace Classification

namespace Agent {
VEL_DEFINE(Agent, AgentCommandRequest)
}  // namespace Agent

namespace Vel {
VEL_DEFINE(Vel, Dir)
}  // namespace Vel
