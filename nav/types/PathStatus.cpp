#include "nav/types/PathStatus.h"

namespace Nav {

VEL_DEFINE(Nav, PathConfigEntry)
VEL_DEFINE(Nav, PathConfig)
VEL_DEFINE(Nav, PathConfigDir)
VEL_DEFINE(Nav, PathStatusEntry)
VEL_DEFINE(Nav, PathStatus)
VEL_DEFINE(Nav, PathStatusDir)
VEL_DEFINE(Nav, SiteGroupConfigEntry)
VEL_DEFINE(Nav, SiteGroupConfig)
VEL_DEFINE(Nav, SiteGroupStatusEntry)
VEL_DEFINE(Nav, SiteGroupStatus)
VEL_DEFINE(Nav, LbProfileStatusEntry)
VEL_DEFINE(Nav, LbProfileStatus)
VEL_DEFINE(Nav, HwPathStatusEntry)
VEL_DEFINE(Nav, HwPathStatus)

}  // namespace Nav
