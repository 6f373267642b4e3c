#include "nav/types/NavStatusDir.h"

namespace Nav {

VEL_DEFINE(Nav, NavRuleStatus)
VEL_DEFINE(Nav, PolicyToVrf)
VEL_DEFINE(Nav, NavStatusDir)

}  // namespace Nav
