#include "nav/config/NavCliConfig.h"

namespace Nav {

VEL_DEFINE(Nav, RemoteViaConfig)
VEL_DEFINE(Nav, PathGroupConfig)
VEL_DEFINE(Nav, AppProfilePolicyRuleConfig)
VEL_DEFINE(Nav, PolicyConfig)
VEL_DEFINE(Nav, LoadBalanceProfile)
VEL_DEFINE(Nav, VrfConfig)
VEL_DEFINE(Nav, NavCliConfig)

}  // namespace Nav
