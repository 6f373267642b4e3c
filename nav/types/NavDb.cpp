#include "nav/types/NavDb.h"

namespace Nav {

VEL_DEFINE(Nav, PathAddrToPathKeySet)
VEL_DEFINE(Nav, LbNameToLbKeySet)
VEL_DEFINE(Nav, PathKeyInfo)
VEL_DEFINE(Nav, PathGroupInfo)
VEL_DEFINE(Nav, NavDb)

}  // namespace Nav
